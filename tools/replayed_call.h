/// \file
/// Whether a repeated call did what was recorded, and how it differs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "comparison.h"
#include "recorded_call.h"
#include "repeated_layer.h"

namespace vekrun {

/// An output whose elements differ.
struct DifferingOutput {
  std::size_t number;
  vek_host::BufAttrs attrs;
  std::vector<std::byte> here;
  std::vector<std::byte> expected;  ///< as recorded, and as here where the layer wrote nothing
  Comparison comparison;            ///< of bits; a is here
};

struct ReplayedCall {
  bool is_equal = true;
  std::string text = "equal";        ///< that, or the first difference
  std::vector<std::string> details;  ///< how the differences lie along the axes
  std::uint64_t compared_bytes = 0;  ///< of the outputs: those that the layer writes
  std::optional<DifferingOutput> output;
};

/// Compares a call here with the recorded one.
ReplayedCall CompareWithRecorded(const RecordedConfigure& recorded, const RepeatedCall& here);
/// Likewise; a NaN that another machine made may have other bits. Throws `UsageError`.
ReplayedCall CompareWithRecorded(const RecordedLayer& layer, const RecordedExecute& recorded,
                                 const RepeatedCall& here);

/// \return a log's line without the number of the line that printed it.
std::string WithoutLineNumber(const std::string& line);
/// \return the lines of a log.
std::vector<std::string> LinesOf(const std::string& log);
/// \return "aarch64" or "x86_64", as recordings call this machine.
const char* ThisMachine();

}  // namespace vekrun
