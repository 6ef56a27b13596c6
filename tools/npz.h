/// \file
/// NumPy's .npz archives: .npy members in a zip file.
#pragma once

#include <optional>
#include <string>

#include "mapped_file.h"

namespace vekrun {

/// \return the bytes of one member, mapped where it is stored as it is; `member` is its name, with ".npy" or without,
/// and may only be missing where there is just one.
/// Throws `UsageError`, which lists the members.
FileBytes ReadArchiveMember(const FileBytes& archive, const std::optional<std::string>& member);

}  // namespace vekrun
