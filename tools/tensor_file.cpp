#include "tensor_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <sstream>
#include <utility>

#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#define STBI_ONLY_PNG
#define STBI_ONLY_PNM
#include <stb/stb_image.h>
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#include <stb/stb_image_write.h>

#include <xtensor/xarray.hpp>
#include <xtensor/xnpy.hpp>

#include "usage_error.h"

namespace vekrun {
namespace {

struct TypeInfo {
  ElementType type;
  const char* name;
  const char* numpy;  // as .npy headers spell it
  int bits;
  bool is_signed;
};

constexpr std::array<TypeInfo, 7> kTypes = {{
    {ElementType::kFloat32, "float32", "<f4", 32, false},
    {ElementType::kInt8, "int8", "|i1", 8, true},
    {ElementType::kUint8, "uint8", "|u1", 8, false},
    {ElementType::kInt16, "int16", "<i2", 16, true},
    {ElementType::kUint16, "uint16", "<u2", 16, false},
    {ElementType::kInt32, "int32", "<i4", 32, true},
    {ElementType::kUint32, "uint32", "<u4", 32, false},
}};

const TypeInfo& Info(ElementType type) {
  return *std::find_if(kTypes.begin(), kTypes.end(), [type](const TypeInfo& t) { return t.type == type; });
}

std::string Extension(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  for (char& c : extension) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return extension;
}

std::string Reason() { return std::strerror(errno); }

// --- NumPy arrays.

template <typename Word>
void CopyRowMajor(xt::detail::npy_file& file, std::vector<std::byte>* data) {
  const auto view = file.cast<Word>(/*check_type=*/false);
  const xt::xarray<Word, xt::layout_type::row_major> dense = view;
  data->resize(dense.size() * sizeof(Word));
  if (!data->empty()) std::memcpy(data->data(), dense.data(), data->size());
}

Tensor ReadNumpy(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) throw UsageError("cannot read " + path + ": " + Reason());
  try {
    // Every short read becomes an exception.
    stream.exceptions(std::ios::failbit | std::ios::badbit);
    xt::detail::npy_file file = xt::detail::load_npy_file(stream);
    const auto* info = std::find_if(kTypes.begin(), kTypes.end(),
                                    [&](const TypeInfo& t) { return file.m_typestring == t.numpy; });
    if (info == kTypes.end()) {
      throw UsageError(path + " holds elements of type '" + file.m_typestring +
                       "'; vekrun takes float32, int8, uint8, int16, uint16, int32 and uint32");
    }
    Tensor tensor{info->type, {}, {}};
    double elements = 1;  // No product of extents is too large for it.
    for (const std::size_t extent : file.m_shape) {
      elements *= static_cast<double>(extent);
      tensor.dims.push_back(static_cast<unsigned int>(extent));
    }
    if (elements > UINT32_MAX || !std::equal(tensor.dims.begin(), tensor.dims.end(), file.m_shape.begin())) {
      throw UsageError(path + " is too large: a buffer is smaller than 4 GiB");
    }
    switch (ElementBytes(tensor.type)) {
      case 1:
        CopyRowMajor<std::uint8_t>(file, &tensor.data);
        break;
      case 2:
        CopyRowMajor<std::uint16_t>(file, &tensor.data);
        break;
      default:
        CopyRowMajor<std::uint32_t>(file, &tensor.data);
        break;
    }
    return tensor;
  } catch (const UsageError&) {
    throw;
  } catch (const std::exception&) {
    throw UsageError(path + " is not a whole .npy file");
  }
}

std::string EncodeNumpy(const Tensor& tensor) {
  std::ostringstream stream;
  xt::detail::write_header(stream, Info(tensor.type).numpy, /*fortran_order=*/false, tensor.dims);
  stream.write(reinterpret_cast<const char*>(tensor.data.data()),
               static_cast<std::streamsize>(tensor.data.size()));
  return std::move(stream).str();
}

// --- Pictures. Files hold H x W pixels of C values, tensors C planes.

Tensor ReadPicture(const std::string& path, ElementType type) {
  int width = 0;
  int height = 0;
  int channels = 0;
  const std::unique_ptr<stbi_uc, void (*)(void*)> pixels(
      stbi_load(path.c_str(), &width, &height, &channels, 0), stbi_image_free);
  if (pixels == nullptr) {
    if (access(path.c_str(), R_OK) != 0) throw UsageError("cannot read " + path + ": " + Reason());
    throw UsageError(path + " is not a whole PNG, PPM or PGM file");
  }
  const auto C = static_cast<std::size_t>(channels);
  const std::size_t plane = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  Tensor tensor{type,
                {1, static_cast<unsigned int>(channels), static_cast<unsigned int>(height),
                 static_cast<unsigned int>(width)},
                std::vector<std::byte>(plane * C * ElementBytes(type))};
  for (std::size_t c = 0; c < C; ++c) {
    for (std::size_t i = 0; i < plane; ++i) {
      const stbi_uc value = pixels.get()[i * C + c];
      if (type == ElementType::kFloat32) {
        const float scaled = static_cast<float>(value) / 255.0F;
        std::memcpy(tensor.data.data() + (c * plane + i) * sizeof scaled, &scaled, sizeof scaled);
      } else {
        tensor.data[c * plane + i] = static_cast<std::byte>(value);
      }
    }
  }
  return tensor;
}

struct PictureSize {
  std::size_t channels = 1;
  std::size_t height = 1;
  std::size_t width = 1;
};

// The picture that a tensor is, if it is one: at most C x H x W, with only ones before.
std::optional<PictureSize> AsPicture(const std::vector<unsigned int>& dims) {
  PictureSize size;
  std::size_t* const parts[] = {&size.width, &size.height, &size.channels};
  for (std::size_t position = 0; position < dims.size(); ++position) {
    const unsigned int extent = dims[dims.size() - 1 - position];
    if (position < 3) {
      *parts[position] = extent;
    } else if (extent != 1) {
      return std::nullopt;
    }
  }
  return size;
}

unsigned char PixelValue(const Tensor& tensor, std::size_t index) {
  if (tensor.type != ElementType::kFloat32) return static_cast<unsigned char>(tensor.data[index]);
  float value = 0.0F;
  std::memcpy(&value, tensor.data.data() + index * sizeof value, sizeof value);
  if (!(value > 0.0F)) return 0;  // NaN, too
  return static_cast<unsigned char>(std::lround(std::min(value, 1.0F) * 255.0F));
}

std::string EncodePicture(const std::string& path, const Tensor& tensor) {
  const PictureSize size = AsPicture(tensor.dims).value();
  const std::size_t plane = size.height * size.width;
  std::string pixels(plane * size.channels, '\0');
  for (std::size_t c = 0; c < size.channels; ++c) {
    for (std::size_t i = 0; i < plane; ++i) {
      pixels[i * size.channels + c] = static_cast<char>(PixelValue(tensor, c * plane + i));
    }
  }
  const auto width = static_cast<int>(size.width);
  const auto height = static_cast<int>(size.height);
  if (Extension(path) != ".png") {
    return (size.channels == 1 ? "P5\n" : "P6\n") + std::to_string(width) + ' ' + std::to_string(height) +
           "\n255\n" + pixels;
  }
  std::string png;
  const auto append = [](void* context, void* data, int bytes) {
    static_cast<std::string*>(context)->append(static_cast<const char*>(data),
                                               static_cast<std::size_t>(bytes));
  };
  const auto channels = static_cast<int>(size.channels);
  if (stbi_write_png_to_func(append, &png, width, height, channels, pixels.data(), width * channels) == 0) {
    throw UsageError("cannot write " + path + ": the picture does not encode");
  }
  return png;
}

}  // namespace

const char* Name(ElementType type) { return Info(type).name; }

std::string ShapeText(const std::vector<unsigned int>& dims) {
  if (dims.empty()) return "scalar";
  std::string text = std::to_string(dims[0]);
  for (std::size_t i = 1; i < dims.size(); ++i) text.append("x").append(std::to_string(dims[i]));
  return text;
}

std::optional<ElementType> TypeNamed(std::string_view name) {
  for (const TypeInfo& info : kTypes) {
    if (name == info.name) return info.type;
  }
  return std::nullopt;
}

std::size_t ElementBytes(ElementType type) { return static_cast<std::size_t>(Info(type).bits) / 8; }

zeb::PuxDnnBufAttrsMemFormat FormatOf(ElementType type) {
  zeb::PuxDnnBufAttrsMemFormat format;
  format.bitdepth = Info(type).bits;
  format.signed_ = Info(type).is_signed;
  format.float_ = type == ElementType::kFloat32;
  return format;
}

ElementType TypeOf(const zeb::PuxDnnBufAttrsMemFormat& format) {
  if (format.float_) return ElementType::kFloat32;
  return std::find_if(
             kTypes.begin() + 1, kTypes.end(),
             [&](const TypeInfo& t) { return t.bits == format.bitdepth && t.is_signed == format.signed_; })
      ->type;
}

FileKind KindOf(const std::string& path) {
  const std::string extension = Extension(path);
  if (extension == ".npy") return FileKind::kNumpy;
  if (extension == ".png" || extension == ".ppm" || extension == ".pgm") return FileKind::kPicture;
  if (extension == ".bin") return FileKind::kRaw;
  throw UsageError(path + ": a file's name ends in .npy, .png, .ppm, .pgm or .bin");
}

Tensor ReadTensor(const std::string& path, ElementType picture_type) {
  return KindOf(path) == FileKind::kNumpy ? ReadNumpy(path) : ReadPicture(path, picture_type);
}

std::vector<std::byte> ReadBytes(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) throw UsageError("cannot read " + path + ": " + Reason());
  std::ostringstream bytes;
  bytes << stream.rdbuf();
  const std::string text = std::move(bytes).str();
  std::vector<std::byte> data(text.size());
  std::transform(text.begin(), text.end(), data.begin(), [](char c) { return static_cast<std::byte>(c); });
  return data;
}

void CheckCanHold(const std::string& path, ElementType type, const std::vector<unsigned int>& dims) {
  if (KindOf(path) != FileKind::kPicture) return;
  if (type != ElementType::kUint8 && type != ElementType::kFloat32) {
    throw UsageError(path + ": a picture holds uint8 or float32, not " + Name(type));
  }
  const std::optional<PictureSize> size = AsPicture(dims);
  const bool is_png = Extension(path) == ".png";
  const bool channels_fit = size && (size->channels == 1 || size->channels == 3 ||
                                     (is_png && (size->channels == 2 || size->channels == 4)));
  if (!channels_fit || size->height == 0 || size->width == 0) {
    throw UsageError(path + ": a picture has one batch item and " +
                     (is_png ? "1 to 4 channels" : "1 or 3 channels") + ", the output is " + ShapeText(dims));
  }
}

std::string Encode(const std::string& path, const Tensor& tensor) {
  return KindOf(path) == FileKind::kNumpy ? EncodeNumpy(tensor) : EncodePicture(path, tensor);
}

NewFile::NewFile(std::string path, std::string_view bytes)
    : path_(std::move(path)), temporary_(path_ + ".part-" + std::to_string(getpid())) {
  const int file = open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (file < 0) throw UsageError("cannot write " + path_ + ": " + Reason());
  std::string failure;
  while (!bytes.empty() && failure.empty()) {
    const ssize_t written = write(file, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      failure = Reason();
    }
  }
  if (close(file) != 0 && failure.empty()) failure = Reason();
  if (failure.empty()) return;
  unlink(temporary_.c_str());
  throw UsageError("cannot write " + path_ + ": " + failure);
}

NewFile::~NewFile() {
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

void NewFile::Publish() {
  if (rename(temporary_.c_str(), path_.c_str()) != 0) {
    throw UsageError("cannot write " + path_ + ": " + Reason());
  }
  temporary_.clear();
}

}  // namespace vekrun
