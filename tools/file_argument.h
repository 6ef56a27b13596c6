/// \file
/// The value of --in and --out: a file's name, then how its tensor lies in memory.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/buf_attrs.h"
#include "tensor_file.h"

namespace vekrun {

/// FILE[,option=value]..., for instance "scores.npy,pack=4,line=64". What is not given follows from the
/// tensor.
struct FileArgument {
  std::string path;
  std::optional<ElementType> type;                 ///< type=uint8
  std::optional<std::vector<unsigned int>> shape;  ///< shape=1x3x64x64
  std::optional<std::int32_t> pack;                ///< pack=4: channels interleaved in one plane
  std::optional<unsigned int> line;                ///< line=256: bytes from row to row
  std::optional<unsigned int> plane;               ///< plane=65536: bytes from plane to plane
  std::optional<std::int32_t> exp;                 ///< exp=-8: exponent of fixed-point elements
  std::optional<std::uint8_t> zero;                ///< zero=128: zero point; makes the format q8a
  std::optional<float> scale;                      ///< scale=0.02: scale; makes the format q8a
};

/// Throws `UsageError` for an unknown option or a value that is none.
FileArgument ParseFileArgument(const std::string& text);

/// \return the description of a buffer of that shape, with the argument's options put over the given format.
/// Throws `UsageError` for strides below what rows and planes take, and for 4 GiB or more.
vek_host::BufAttrs Describe(const FileArgument& file, const std::vector<unsigned int>& dims,
                            zeb::PuxDnnBufAttrsMemFormat format);

}  // namespace vekrun
