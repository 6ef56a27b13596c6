/// \file
/// What looks wrong in a call of a layer, and what to give instead.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "guarded_run.h"

namespace vekrun {

struct Advice {
  std::string text;
  std::optional<std::size_t> input;  ///< the one that it is about, if it is one
};

/// \return what looks wrong although the layer may take it: sizes that do not fit each other, mixed types, attributes
/// that the layer does not know.
std::vector<Advice> AdviseBefore(const LayerCall& call);

/// \return what a refusal may be about: numbers of dimensions, types, extents that do not divide, attributes to part.
std::vector<Advice> AdviseAfterRefusal(const LayerCall& call);

/// \return which text of an attribute's list is no number, as a remark on an exception of `std::stoi`; or nothing.
std::string AdviseAfterException(const LayerCall& call);

}  // namespace vekrun
