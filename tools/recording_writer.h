/// \file
/// Writes recordings, as libvekrecord.so does.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "guarded_run.h"
#include "recorded_call.h"
#include "repeated_layer.h"

namespace vekrun {

/// Keys and values.
using AttributeList = std::vector<std::pair<std::string, std::string>>;

/// \return a call of a layer as if it had been recorded, configured with each of the lists in turn; nothing came of it yet.
/// \param bytes  of each input.
RecordedLayer AsRecorded(const std::string& type, const std::vector<AttributeList>& attributes,
                         const std::vector<vek_host::BufAttrs>& inputs,
                         const std::vector<vek_host::BufAttrs>& outputs,
                         std::vector<std::vector<std::byte>> bytes);
/// \return the call with its inputs' bytes, as if it had been recorded; nothing came of it yet.
RecordedLayer AsRecorded(const LayerCall& call);

/// Puts what came of the calls here in the place of what was recorded. An output's bytes that the layer did not write are
/// 0. What follows a refused `Configure` goes, as a host would not have called it.
void TakeOver(RepeatedLayer here, RecordedLayer* layer);

/// Writes the layer into a new folder in `folder`, which is made where there is none.
/// \param library  path of the plug-in.
/// \return the new folder's path. Throws `UsageError`.
std::string WriteRecording(const std::string& folder, const RecordedLayer& layer, const std::string& library);

}  // namespace vekrun
