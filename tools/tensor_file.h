/// \file
/// Tensors in files: NumPy arrays, ONNX tensors, pictures, raw images of a buffer's memory; and generated ones.
#pragma once

#include <cstddef>
#include <memory>

#include "file_argument.h"
#include "host/buf_attrs.h"
#include "new_file.h"
#include "tensor.h"

namespace vekrun {

enum class FileKind {
  kNumpy,      ///< .npy, and "-"
  kArchive,    ///< .npz: a member of it
  kOnnx,       ///< .pb: an ONNX TensorProto
  kPicture,    ///< .png, .ppm, .pgm: N C H W of 8 or 16 bits, or float with white as 1.0
  kRaw,        ///< .bin: the bytes of a buffer as they lie in memory, padding included; any name that has an
               ///< offset=, and any other ending with type= and shape=
  kGenerated,  ///< random:1x3x8x8 and its like
};

/// \return the kind that the name's ending and the options tell, or nothing.
std::optional<FileKind> KindOf(const FileArgument& file);

/// A tensor as it is stored, with the layout that the argument's options ask for.
struct StoredTensor {
  FileArgument file;
  ElementType type;
  vek_host::BufAttrs attrs;               ///< the buffer that the options describe
  std::shared_ptr<const std::byte> data;  ///< dense elements; of a raw file the buffer's bytes
  bool is_laid_out;                       ///< whether it is the latter
};

/// Opens a tensor of any kind: a regular file is mapped, and shared where its bytes need no conversion.
/// shape= gives the elements another shape. Throws `UsageError`.
StoredTensor OpenTensor(const FileArgument& file);

/// Lays the tensor out in memory of `stored.attrs.Bytes()` bytes. What no element occupies stays as it is, but of a raw
/// file all bytes are those of the file.
void Load(const StoredTensor& stored, std::byte* buffer);

/// \return the tensor in dense order. Throws `UsageError`.
Tensor ReadTensor(const FileArgument& file);
Tensor Dense(const StoredTensor& stored);

/// Throws `UsageError` when a tensor of that type and shape cannot be written to that file.
void CheckCanHold(const FileArgument& file, ElementType type, const Dims& dims);

/// Writes a tensor; for a raw file it is laid out as the options ask. `CheckCanHold` has passed. Throws `UsageError`.
void WriteTensor(const FileArgument& file, const Tensor& tensor, NewFile* out);

/// Writes the tensor in a buffer; for a raw file the buffer's bytes as they are. `CheckCanHold` has passed.
/// Throws `UsageError`.
void WriteBuffer(const FileArgument& file, const vek_host::BufAttrs& attrs, const std::byte* buffer,
                 NewFile* out);

}  // namespace vekrun
