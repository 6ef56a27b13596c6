#pragma once
// Right.
#include "simd/lanes.h"
// Wrong.
#include "math/powers.h"
#include "runs.h"
