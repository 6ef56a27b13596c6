// What exp and pow give on 64-bit Arm, whatever C library runs the tests.
#pragma once

namespace vek_model {

// e to the power x, for x of at most 0 or NaN.
float Exp(float x);
float Pow(float x, float k);

}  // namespace vek_model
