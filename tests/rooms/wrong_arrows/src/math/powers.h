#pragma once
// Right.
#include "simd/lanes.h"
// Wrong.
#include "copy/runs.h"
