#pragma once
// Right.
#include "zeb/layer.h"
// Wrong.
#include "copy/runs.h"
