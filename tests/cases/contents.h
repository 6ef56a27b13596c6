// What buffers hold before a layer runs.
#pragma once

#include "model/memory.h"
#include "support/random.h"

namespace vek_cases {

// Floats of one kind, for layers that compute; else any bits.
vek_model::Memory::Words AnyFloats(vek_test::Random& random);
vek_model::Memory::Words AnyBits(vek_test::Random& random);
// Numbers below `limit`, among which there may be one that is not.
vek_model::Memory::Words AnyIndices(vek_test::Random& random, vek_model::u32 limit);

}  // namespace vek_cases
