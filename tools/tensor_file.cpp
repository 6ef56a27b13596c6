#include "tensor_file.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <utility>
#include <vector>

#include "host/layout.h"
#include "mapped_file.h"
#include "npy.h"
#include "npz.h"
#include "onnx_tensor.h"
#include "picture.h"
#include "usage_error.h"

namespace vekrun {
namespace {

std::string Extension(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  for (char& c : extension) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return extension;
}

bool StartsWith(const FileBytes& bytes, std::string_view start) {
  return bytes.size >= start.size() && std::memcmp(bytes.data.get(), start.data(), start.size()) == 0;
}

// Where the name tells nothing, the first bytes may.
FileKind KindOf(const FileArgument& file, const FileBytes& bytes) {
  const std::optional<FileKind> kind = KindOf(file);
  if (kind) return *kind;
  if (StartsWith(bytes, "\x93NUMPY")) return FileKind::kNumpy;
  if (StartsWith(bytes, "\x89PNG\r\n")) return FileKind::kPicture;
  if (StartsWith(bytes, "PK\3\4")) return FileKind::kArchive;
  throw UsageError(file.name +
                   ": bytes alone do not tell their type= and shape=; names of other files end in .npy, "
                   ".npz, .pb, .png, .ppm or .pgm");
}

StoredTensor OpenRaw(const FileArgument& file, const FileBytes& bytes) {
  if (!file.type || !file.shape) {
    throw UsageError(file.name + ": bytes alone do not tell their type= and shape=");
  }
  const vek_host::BufAttrs attrs = Describe(file, *file.shape, FormatOf(*file.type));
  const std::uint64_t offset = file.offset.value_or(0);
  const bool fits = file.offset ? offset <= bytes.size && bytes.size - offset >= attrs.Bytes()
                                : bytes.size == attrs.Bytes();
  if (!fits) {
    throw UsageError(file.name + " has " + std::to_string(bytes.size) + " bytes, the described buffer " +
                     std::to_string(attrs.Bytes()) +
                     (offset > 0 ? " from byte " + std::to_string(offset) + " on" : ""));
  }
  return {file, *file.type, attrs, {bytes.data, bytes.data.get() + offset}, /*is_laid_out=*/true};
}

Tensor ReadWhole(const FileArgument& file, FileKind kind, const FileBytes& bytes) {
  const bool tells_type = kind != FileKind::kPicture;
  if (tells_type && file.type) {
    throw UsageError(file.name +
                     ": the file tells its type itself; type= is for pictures, raw files and generated " +
                     "inputs");
  }
  if (file.member && kind != FileKind::kArchive) throw UsageError(file.name + ": member= is for .npz files");
  switch (kind) {
    case FileKind::kArchive:
      return ReadNpy(ReadArchiveMember(bytes, file.member));
    case FileKind::kOnnx:
      return ReadOnnxTensor(bytes);
    case FileKind::kPicture:
      return ReadPicture(bytes, file.type);
    default:
      return ReadNpy(bytes);
  }
}

bool IsDense(const vek_host::BufAttrs& attrs) { return !attrs.IsStrided() && !attrs.IsInterleaved(); }

}  // namespace

std::optional<FileKind> KindOf(const FileArgument& file) {
  if (file.generated) return FileKind::kGenerated;
  if (file.offset) return FileKind::kRaw;
  if (file.path == "-") return FileKind::kNumpy;
  const std::string extension = Extension(file.path);
  if (extension == ".npy") return FileKind::kNumpy;
  if (extension == ".npz") return FileKind::kArchive;
  if (extension == ".pb") return FileKind::kOnnx;
  if (extension == ".png" || extension == ".ppm" || extension == ".pgm") return FileKind::kPicture;
  if (extension == ".bin" || (file.type && file.shape)) return FileKind::kRaw;
  return std::nullopt;
}

StoredTensor OpenTensor(const FileArgument& file) {
  if (file.generated) {
    const Tensor tensor = Generate(*file.generated, file.type.value_or(ElementType::kFloat32), *file.shape);
    return {file, tensor.type, Describe(file, tensor.dims, FormatOf(tensor.type)), tensor.data, false};
  }
  const FileBytes bytes = ReadFileBytes(file.path);
  const FileKind kind = KindOf(file, bytes);
  if (kind == FileKind::kRaw) return OpenRaw(file, bytes);
  const Tensor tensor = ReadWhole(file, kind, bytes);
  const Dims& dims = file.shape ? *file.shape : tensor.dims;
  if (ElementCount(dims) != tensor.Elements()) {
    throw UsageError(file.name + " holds " + ShapeText(tensor.dims) + ", which shape=" + ShapeText(dims) +
                     " does not");
  }
  return {file, tensor.type, Describe(file, dims, FormatOf(tensor.type)), tensor.data, false};
}

void Load(const StoredTensor& stored, std::byte* buffer) {
  if (stored.is_laid_out) {
    std::copy_n(stored.data.get(), stored.attrs.Bytes(), buffer);
  } else {
    vek_host::Pack(stored.attrs, stored.data.get(), buffer);
  }
}

Tensor Dense(const StoredTensor& stored) {
  Tensor tensor{stored.type, stored.attrs.GetDims(), stored.data};
  if (!stored.is_laid_out || IsDense(stored.attrs)) return tensor;
  const auto data = NewBytes(tensor.Bytes());
  vek_host::Unpack(stored.attrs, stored.data.get(), data.get());
  tensor.data = data;
  return tensor;
}

Tensor ReadTensor(const FileArgument& file) { return Dense(OpenTensor(file)); }

void CheckCanHold(const FileArgument& file, ElementType type, const Dims& dims) {
  const std::optional<FileKind> kind = KindOf(file);
  if (kind == FileKind::kGenerated)
    throw UsageError(file.name + ": " + file.generated->kind + ": is for inputs");
  if (kind == FileKind::kArchive) throw UsageError(file.name + ": .npz files are read, not written");
  if (file.offset) throw UsageError(file.name + ": offset= is for inputs");
  if (!kind) {
    throw UsageError(file.name +
                     ": the name of an output ends in .npy, .pb, .png, .ppm, .pgm or .bin; with type= and " +
                     "shape= any name is a raw file");
  }
  if (kind == FileKind::kPicture) CheckIsPicture(file.path, type, dims);
}

void WriteTensor(const FileArgument& file, const Tensor& tensor, NewFile* out) {
  switch (KindOf(file).value()) {
    case FileKind::kPicture:
      WritePicture(file.path, tensor, out);
      break;
    case FileKind::kOnnx:
      out->Write(OnnxTensorHeader(tensor.type, tensor.dims));
      out->Write(tensor.data.get(), tensor.Bytes());
      break;
    case FileKind::kRaw: {
      const vek_host::BufAttrs attrs = Describe(file, tensor.dims, FormatOf(tensor.type));
      std::vector<std::byte> buffer(attrs.Bytes());
      vek_host::Pack(attrs, tensor.data.get(), buffer.data());
      out->Write(buffer.data(), buffer.size());
      break;
    }
    default:
      out->Write(NpyHeader(tensor.type, tensor.dims));
      out->Write(tensor.data.get(), tensor.Bytes());
  }
}

void WriteBuffer(const FileArgument& file, const vek_host::BufAttrs& attrs, const std::byte* buffer,
                 NewFile* out) {
  const FileKind kind = KindOf(file).value();
  if (kind == FileKind::kRaw) {
    out->Write(buffer, attrs.Bytes());
    return;
  }
  const ElementType type = TypeOf(attrs.GetMemFormat());
  // A share of nothing that points at the buffer.
  Tensor tensor{type, attrs.GetDims(), {std::shared_ptr<const std::byte>(), buffer}};
  if (IsDense(attrs)) {
    WriteTensor(file, tensor, out);
    return;
  }
  if (kind == FileKind::kPicture) {
    const auto data = NewBytes(tensor.Bytes());
    vek_host::Unpack(attrs, buffer, data.get());
    tensor.data = data;
    WriteTensor(file, tensor, out);
    return;
  }
  // A few rows at a time: a large tensor is never in memory twice.
  out->Write(kind == FileKind::kOnnx ? OnnxTensorHeader(type, tensor.dims) : NpyHeader(type, tensor.dims));
  const std::size_t rows = vek_host::Rows(attrs);
  const std::size_t row_bytes = attrs.GetWidth() * std::size_t{attrs.ElementBytes()};
  const std::size_t step =
      std::max<std::size_t>(1, (std::size_t{1} << 20) / std::max<std::size_t>(1, row_bytes));
  std::vector<std::byte> piece(step * row_bytes);
  for (std::size_t row = 0; row < rows; row += step) {
    const std::size_t count = std::min(step, rows - row);
    vek_host::UnpackRows(attrs, buffer, row, count, piece.data());
    out->Write(piece.data(), count * row_bytes);
  }
}

}  // namespace vekrun
