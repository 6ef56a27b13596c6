// One input of a fuzz target: the bytes decide what the case is.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

#include "cases/layer_case.h"

namespace vek_fuzz {

// The target is a layer type, or "list" for the parser of list attributes. Aborts where the library and the model do not
// agree.
inline void RunTarget(const std::string& target, const std::uint8_t* data, std::size_t size) {
  std::string difference;
  if (target == "list") {
    difference = vek_cases::RunListCase(std::string(reinterpret_cast<const char*>(data), size));
  } else {
    vek_test::Random random(data, size);
    difference = vek_cases::RunLayerCase(target, random).difference;
  }
  if (difference.empty()) return;
  std::cerr << target << ": " << difference << std::endl;
  std::abort();
}

}  // namespace vek_fuzz
