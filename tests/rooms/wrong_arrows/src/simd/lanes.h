#pragma once
// Wrong.
#include "math/powers.h"
