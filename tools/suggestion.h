/// \file
/// "Did you mean ...?"
#pragma once

#include <string>
#include <vector>

namespace vekrun {

/// \return "; did you mean X?" for the candidate that is nearest to the word, if one is near, else nothing. Case and the
/// order of two neighbours count little.
std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace vekrun
