/// \file
/// Repeats the recorded calls of a layer, each twice over, on guarded buffers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/plugin.h"
#include "recorded_call.h"

namespace vekrun {

/// What came of a call here.
struct RepeatedCall {
  bool is_repeated = false;         ///< false where an input's bytes are not known
  std::optional<std::string> what;  ///< as `RecordedOutcome::what`; none where it crashed
  std::string failure;  ///< how it crashed, or wrote outside of its buffers; empty where it did not
  std::string log;      ///< what it printed
  std::uint64_t nanoseconds = 0;
  /// Of each output of an `Execute` that returned: its bytes after the call over bytes of 0xFF, and over zeros. Where the
  /// two agree, the layer wrote them.
  std::vector<std::vector<std::byte>> over_ones;
  std::vector<std::vector<std::byte>> over_zeros;
};

struct RepeatedLayer {
  std::vector<RepeatedCall> configures;
  std::vector<RepeatedCall> executes;
};

/// Finds the bytes of a tensor, or nothing where they are not known. Throws `UsageError`.
using FindBytes = std::function<std::optional<FileBytes>(const RecordedTensor&)>;

/// Makes the layer and repeats its calls in order, in a process of its own: first with the buffers' ends at unmapped
/// pages, then with their starts there. Behind a call that crashes it begins anew, with the calls of `Configure`.
/// Throws `UsageError` where the plug-in has no such layer type, or where there is no memory.
RepeatedLayer Repeat(const vek_host::Plugin& plugin, const RecordedLayer& layer, const FindBytes& find);

}  // namespace vekrun
