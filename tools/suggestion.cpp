#include "suggestion.h"

#include <algorithm>
#include <cstddef>

namespace vekrun {
namespace {

std::string Lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

// Letters added, left out, changed, or swapped with their neighbour, that make one word of the other.
std::size_t Edits(const std::string& a, const std::string& b) {
  std::vector<std::vector<std::size_t>> edits(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) {
    for (std::size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        edits[i][j] = i + j;
        continue;
      }
      edits[i][j] = std::min(
          {edits[i - 1][j] + 1, edits[i][j - 1] + 1, edits[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        edits[i][j] = std::min(edits[i][j], edits[i - 2][j - 2] + 1);
      }
    }
  }
  return edits[a.size()][b.size()];
}

}  // namespace

std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates) {
  const std::string* best = nullptr;
  std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
  for (const std::string& candidate : candidates) {
    const std::size_t edits = Edits(Lower(word), Lower(candidate));
    if (edits >= least) continue;
    least = edits;
    best = &candidate;
  }
  return best == nullptr ? "" : "; did you mean " + *best + "?";
}

}  // namespace vekrun
