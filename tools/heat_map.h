/// \file
/// A picture of the differences of two tensors.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vekrun {

/// One colour for each element, the planes of H x W side by side: near black where nothing differs, from violet to
/// yellow by the root of the difference, cyan where it is infinite or NaN. Small planes are enlarged; pictures beyond
/// `most_pixels` a side show the largest difference of each square.
struct HeatMap {
  unsigned int height = 0;
  unsigned int width = 0;
  std::vector<unsigned char> pixels;  ///< rows of red, green and blue
};

/// \param dims         the tensors' shape.
/// \param differences  one per element, in dense order.
HeatMap DrawHeatMap(const std::vector<unsigned int>& dims, const std::vector<float>& differences,
                    std::size_t most_pixels = 4096);

}  // namespace vekrun
