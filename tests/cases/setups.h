// Random setups of every layer type: valid ones, and what a host or a network file may say instead.
#pragma once

#include <string>
#include <vector>

#include "support/fake_buf_attrs.h"
#include "support/random.h"

namespace vek_cases {

using vek_test::Random;
using vek_test::Setup;

extern const std::vector<std::string> kLayerTypes;

// What the layer takes, a few contradictions aside: its extents, formats and layouts, and the texts that say so.
Setup ValidSetup(const std::string& type, Random& random);
// Changes one thing: an attribute, how many buffers there are, or anything that one of them says of itself.
void Spoil(Setup& setup, Random& random);
// Mostly a valid one, else one with a thing or two spoilt.
Setup AnySetup(const std::string& type, Random& random);

}  // namespace vek_cases
