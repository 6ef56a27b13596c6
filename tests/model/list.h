// The parser of list attributes, as the model has it.
#pragma once

#include <string>
#include <vector>

namespace vek_model {

struct List {
  bool ok = false;
  std::vector<std::string> elements;
  std::string error;  // empty when ok
};

List ParseList(const std::string& text);

}  // namespace vek_model
