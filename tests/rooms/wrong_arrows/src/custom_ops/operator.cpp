// Right: what an operator may include.
#include <vector>
#include "contract/sizes.h"
#include "copy/runs.h"
#include "kernels/sums.h"
#include "math/powers.h"
#include "zeb/layer.h"
// Wrong: vectors are not for operators.
#include "simd/lanes.h"
