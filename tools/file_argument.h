/// \file
/// How a user names a tensor: a file or a generated input, then how it lies in memory.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "generated_input.h"
#include "host/buf_attrs.h"
#include "tensor.h"

namespace vekrun {

/// FILE[,option=value]..., for instance "scores.npy,pack=4,line=64". What is not given follows from the tensor.
struct FileArgument {
  std::string path;  ///< "-" is standard input or output
  std::string name;  ///< what messages call it: the path, "file.npz:member" or "random:1x3x8x8"
  std::optional<ElementType> type;          ///< type=uint8
  std::optional<Dims> shape;                ///< shape=1x3x64x64, 1,3,64,64 or [1,3,64,64]
  std::optional<std::int32_t> pack;         ///< pack=4: channels interleaved in one plane
  std::optional<unsigned int> line;         ///< line=256: bytes from row to row
  std::optional<unsigned int> plane;        ///< plane=65536: bytes from plane to plane
  std::optional<std::int32_t> exp;          ///< exp=-8: exponent of fixed-point elements
  std::optional<std::uint8_t> zero;         ///< zero=128: zero point; makes the format q8a
  std::optional<float> scale;               ///< scale=0.02: scale; makes the format q8a
  std::optional<std::string> member;        ///< member=x, or FILE.npz:x: the array of an archive
  std::optional<std::uint64_t> offset;      ///< offset=128: where raw bytes start in the file
  std::optional<GeneratedInput> generated;  ///< random:1x3x8x8, ramp:, zeros:, const:
};

/// Throws `UsageError` for an unknown option, one that is given twice, or a value that is none.
FileArgument ParseFileArgument(const std::string& text);

/// \return the extents of "1x3x64x64", "1,3,64,64" or "[1,3,64,64]", or nothing.
std::optional<Dims> ParseShape(std::string_view text);

/// \return the description of a buffer of that shape, with the argument's options put over the given format.
/// Throws `UsageError` for strides below what rows and planes take, and for 4 GiB or more.
vek_host::BufAttrs Describe(const FileArgument& file, const Dims& dims, zeb::PuxDnnBufAttrsMemFormat format);

}  // namespace vekrun
