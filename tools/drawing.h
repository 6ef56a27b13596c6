/// \file
/// Drawings of buffers as SVG: where each element lies, what is padding, how its address is reckoned.
#pragma once

#include <string>

#include "element_values.h"

namespace CLI {
class App;
}

namespace vekrun {

/// Draws a buffer: a cell for each element with its value, coloured by channel; row by row as the memory runs, the
/// offset of each row in front. Padding is hatched, slots that no channel occupies are dashed. Below stands the formula
/// of an element's address with the buffer's numbers, and one example, whose cell is framed. Of large shapes only
/// the first and last planes, rows and columns are drawn, and the drawing says so.
std::string DrawLayout(const LaidOut& buffer);

/// Draws two buffers side by side, with lines from elements of the left one to those of the same value in the right
/// one. Values that the left one has several times have no lines.
std::string DrawLayouts(const LaidOut& left, const LaidOut& right);

/// \return what every drawing says of its colours and its hatching, letter for letter. A page of several drawings has it
/// once, outside of them: there it holds for all, and what has a name must not be there twice.
std::string DrawingStyles();

struct LayoutRequest {
  std::vector<std::string> files;  ///< one or two FILE[,option=value]...
  std::string out;                 ///< the drawing, .svg
};

/// Adds `vekrun layout`.
/// \return it.
CLI::App* AddLayout(CLI::App* app, LayoutRequest* request);
/// Throws `UsageError`.
void Layout(const LayoutRequest& request);

}  // namespace vekrun
