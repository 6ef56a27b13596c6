#include "heat_map.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

namespace vekrun {
namespace {

using Colour = std::array<unsigned char, 3>;

constexpr Colour kEqual = {18, 18, 24};
constexpr Colour kGap = {96, 96, 104};
constexpr Colour kNoNumber = {0, 205, 225};
// From the smallest difference to the largest; lightness grows evenly.
constexpr std::array<Colour, 5> kScale = {
    {{92, 30, 130}, {165, 45, 120}, {225, 80, 80}, {250, 150, 50}, {252, 240, 140}}};

constexpr std::size_t kEnlargedTo = 512;  // pixels of a side, at most

Colour ColourOf(float difference, float largest) {
  if (difference == 0) return kEqual;
  if (!std::isfinite(difference)) return kNoNumber;
  const float place = std::sqrt(difference / largest) * static_cast<float>(kScale.size() - 1);
  const std::size_t stop = std::min(static_cast<std::size_t>(place), kScale.size() - 2);
  const float weight = place - static_cast<float>(stop);
  Colour colour{};
  for (std::size_t i = 0; i < colour.size(); ++i) {
    const auto from = static_cast<float>(kScale[stop][i]);
    const auto to = static_cast<float>(kScale[stop + 1][i]);
    colour[i] = static_cast<unsigned char>(std::lround(from + (to - from) * weight));
  }
  return colour;
}

// The larger one; what is no number is largest.
float Worse(float a, float b) { return std::isnan(a) || a > b ? a : b; }

}  // namespace

HeatMap DrawHeatMap(const std::vector<unsigned int>& dims, const std::vector<float>& differences,
                    std::size_t most_pixels) {
  const std::size_t rank = dims.size();
  const std::size_t H = rank > 1 ? dims[rank - 2] : 1;
  const std::size_t W = rank > 0 ? dims[rank - 1] : 1;
  const std::size_t planes = differences.empty() ? 0 : differences.size() / (H * W);
  if (planes == 0) return {1, 1, {kEqual.begin(), kEqual.end()}};

  // About as high as wide, with a line between planes.
  const double square = std::sqrt(static_cast<double>(planes * (H + 1)) / static_cast<double>(W + 1));
  const std::size_t columns = std::clamp<std::size_t>(static_cast<std::size_t>(std::ceil(square)), 1, planes);
  const std::size_t rows = (planes + columns - 1) / columns;
  const std::size_t height = rows * (H + 1) - 1;
  const std::size_t width = columns * (W + 1) - 1;
  const std::size_t side = std::max(height, width);
  const std::size_t enlarged = std::clamp<std::size_t>(kEnlargedTo / side, 1, 32);
  const std::size_t reduced = (side + most_pixels - 1) / most_pixels;

  constexpr float kNothing = -1;  // the gaps
  const std::size_t map_height = (height + reduced - 1) / reduced;
  const std::size_t map_width = (width + reduced - 1) / reduced;
  std::vector<float> map(map_height * map_width, kNothing);
  float largest = 0;
  for (std::size_t i = 0; i < differences.size(); ++i) {
    const std::size_t plane = i / (H * W);
    const std::size_t y = plane / columns * (H + 1) + i / W % H;
    const std::size_t x = plane % columns * (W + 1) + i % W;
    float& pixel = map[y / reduced * map_width + x / reduced];
    pixel = Worse(differences[i], pixel);
    if (std::isfinite(differences[i])) largest = std::max(largest, differences[i]);
  }

  HeatMap picture{
      static_cast<unsigned int>(map_height * enlarged), static_cast<unsigned int>(map_width * enlarged), {}};
  picture.pixels.reserve(3 * std::size_t{picture.height} * picture.width);
  for (std::size_t y = 0; y < picture.height; ++y) {
    for (std::size_t x = 0; x < picture.width; ++x) {
      const float difference = map[y / enlarged * map_width + x / enlarged];
      const Colour colour = difference == kNothing ? kGap : ColourOf(difference, largest);
      picture.pixels.insert(picture.pixels.end(), colour.begin(), colour.end());
    }
  }
  return picture;
}

}  // namespace vekrun
