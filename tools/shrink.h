/// \file
/// Makes a call that goes wrong as small as it can be while it still does, and tells how to repeat it.
#pragma once

#include <optional>
#include <string>

#include "host/plugin.h"
#include "recorded_call.h"
#include "repeated_layer.h"

namespace vekrun {

/// Reduces a call of `Execute` of a recorded layer, first its extents, then its values, as long as the plug-in crashes in
/// it or, where there is a reference, does not do the same as that. A few thousand trials at most.
/// \param plugin     the plug-in that goes wrong.
/// \param reference  one that does not, or null.
/// \param find       finds the inputs' bytes.
/// \return the smallest call, with what comes of it with the reference, or without one, as of a process that died in it;
/// nothing where it does not go wrong, or where the call's descriptions contradict each other. Throws `UsageError`.
std::optional<RecordedLayer> Shrink(const vek_host::Plugin& plugin, const vek_host::Plugin* reference,
                                    const RecordedLayer& layer, const RecordedExecute& execute,
                                    const FindBytes& find);

/// \return the line for a shell that repeats a recorded call with the files in `folder`; empty where its descriptions
/// contradict each other. With `plugin`, unless it is empty.
std::string RunCommandLine(const RecordedLayer& layer, const RecordedExecute& execute,
                           const std::string& folder, const std::string& plugin);

}  // namespace vekrun
