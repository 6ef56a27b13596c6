#pragma once
// Right.
#include "copy/runs.h"
#include "math/powers.h"
#include "simd/lanes.h"
// Wrong.
#include "contract/sizes.h"
#include "zeb/layer.h"
