/// \file
/// Writes a tensor in another file format, layout, element type or fixed-point format.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace vekrun {

struct ConvertRequest {
  std::string in, out;  ///< FILE[,option=value]...
  bool real = false;    ///< converts what elements stand for, not what is stored
  bool saturate = false;
  std::string rounding;  ///< "nearest" or "zero"; empty for the default
};

/// Adds `vekrun convert`.
/// \return it.
CLI::App* AddConvert(CLI::App* app, ConvertRequest* request);

/// Converts; an element that does not fit is named, and nothing is written then. Throws `UsageError`.
/// \return whether all elements fit.
bool Convert(const ConvertRequest& request);

}  // namespace vekrun
