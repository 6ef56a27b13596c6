/// \file
/// Tensors in files: NumPy arrays, pictures, and raw images of a buffer's memory.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zeb/pux_dnn_buf_attrs.h"

namespace vekrun {

enum class ElementType { kFloat32, kInt8, kUint8, kInt16, kUint16, kInt32, kUint32 };

/// \return NumPy's name of the type, such as "uint8".
const char* Name(ElementType type);
/// \return the type of that name, or nothing.
std::optional<ElementType> TypeNamed(std::string_view name);
std::size_t ElementBytes(ElementType type);
/// \return the planar format of such elements.
zeb::PuxDnnBufAttrsMemFormat FormatOf(ElementType type);
/// \return the type of elements of that format.
ElementType TypeOf(const zeb::PuxDnnBufAttrsMemFormat& format);

/// \return the dims as users write them, "1x3x64x64".
std::string ShapeText(const std::vector<unsigned int>& dims);

/// A tensor in dense order, outermost dimension first.
struct Tensor {
  ElementType type;
  std::vector<unsigned int> dims;
  std::vector<std::byte> data;
};

enum class FileKind {
  kNumpy,    ///< .npy
  kPicture,  ///< .png, .ppm, .pgm: 8-bit N C H W, or float with 255 as 1.0
  kRaw,      ///< .bin: the bytes of a buffer as they lie in memory, padding included
};

/// \return the kind that the name's extension tells. Throws `UsageError` for any other.
FileKind KindOf(const std::string& path);

/// Reads an array or a picture; `picture_type` is uint8 or float32. Throws `UsageError`.
Tensor ReadTensor(const std::string& path, ElementType picture_type);

/// Reads a whole file as it is. Throws `UsageError`.
std::vector<std::byte> ReadBytes(const std::string& path);

/// Throws `UsageError` when a tensor of that shape cannot be stored in that file.
void CheckCanHold(const std::string& path, ElementType type, const std::vector<unsigned int>& dims);

/// \return the bytes of an array or picture file that holds the tensor; `CheckCanHold` has passed.
std::string Encode(const std::string& path, const Tensor& tensor);

/// A file that appears whole or not at all: written under a temporary name next to it, then renamed.
class NewFile {
 public:
  /// Writes the bytes under the temporary name. Throws `UsageError`.
  NewFile(std::string path, std::string_view bytes);
  /// Removes what was never published.
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  /// Gives the file its name, replacing what had it. Throws `UsageError`.
  void Publish();

 private:
  std::string path_;
  std::string temporary_;  // empty once it is published
};

}  // namespace vekrun
