/// \file
/// vekrun list: the layer types.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace vekrun {

struct ListRequest {
  std::vector<std::string> types;  ///< only these; empty for all
  bool json = false;
};

/// Adds `vekrun list`.
/// \return it.
CLI::App* AddList(CLI::App* app, ListRequest* request);

/// Prints the types, their attributes and what they accept. Throws `UsageError` for a type that is none.
void List(const ListRequest& request);

}  // namespace vekrun
