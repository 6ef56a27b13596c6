#include "picture.h"

#include <png.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdint>
#include <cstring>
#include <new>
#include <string_view>
#include <vector>

#include "usage_error.h"

namespace vekrun {
namespace {

// Pixels side by side, as files hold them.
struct Pixels {
  std::size_t width = 0;
  std::size_t height = 0;
  std::size_t channels = 0;
  std::size_t value_bytes = 1;  // 1, or 2 in this machine's order
  double white = 255;           // the largest value
  std::shared_ptr<std::byte> data;

  std::size_t RowBytes() const { return width * channels * value_bytes; }
};

bool IsPng(std::string_view name) { return name.ends_with(".png") || name.ends_with(".PNG"); }

// --- PNG. The library leaves by longjmp when a file is wrong, so what these functions own lives outside of them.

struct PngSource {
  const FileBytes* file;
  std::size_t at;
};

void ReadPngBytes(png_structp png, png_bytep target, std::size_t bytes) {
  auto* source = static_cast<PngSource*>(png_get_io_ptr(png));
  if (source->file->size - source->at < bytes) png_error(png, "too short");
  std::memcpy(target, source->file->data.get() + source->at, bytes);
  source->at += bytes;
}

[[noreturn]] void LeavePng(png_structp png, png_const_charp) { png_longjmp(png, 1); }
void IgnoreWarning(png_structp, png_const_charp) {}

// Fills pixels and rows; false where the file is not whole.
bool DecodePng(png_structp png, png_infop info, PngSource* source, Pixels* pixels,
               std::vector<png_bytep>* rows) {
  if (setjmp(png_jmpbuf(png)) != 0) return false;
  png_set_read_fn(png, source, ReadPngBytes);
  png_set_user_limits(png, 0x7FFFFFFF, 0x7FFFFFFF);
  png_read_info(png, info);
  png_set_expand(png);  // palettes to colours, 1 to 4 bits to 8, a transparent colour to a channel
  png_set_swap(png);    // 16 bits are stored with the high byte first
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  pixels->width = png_get_image_width(png, info);
  pixels->height = png_get_image_height(png, info);
  pixels->channels = png_get_channels(png, info);
  pixels->value_bytes = png_get_bit_depth(png, info) == 16 ? 2 : 1;
  pixels->white = pixels->value_bytes == 2 ? 65535 : 255;
  pixels->data = NewBytes(pixels->RowBytes() * pixels->height);
  for (std::size_t y = 0; y < pixels->height; ++y) {
    rows->push_back(reinterpret_cast<png_bytep>(pixels->data.get() + y * pixels->RowBytes()));
  }
  png_read_image(png, rows->data());
  png_read_end(png, nullptr);
  return true;
}

[[noreturn]] void NotWhole(const std::string& path) {
  throw UsageError(path + " is not a whole PNG, PPM or PGM file");
}

Pixels ReadPng(const FileBytes& file) {
  Pixels pixels;
  std::vector<png_bytep> rows;
  PngSource source{&file, 0};
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, LeavePng, IgnoreWarning);
  png_infop info = png == nullptr ? nullptr : png_create_info_struct(png);
  const bool whole = info != nullptr && DecodePng(png, info, &source, &pixels, &rows);
  png_destroy_read_struct(&png, &info, nullptr);
  if (!whole) NotWhole(file.path);
  return pixels;
}

bool EncodePng(png_structp png, png_infop info, const Pixels& pixels, NewFile* file, std::string* failure) {
  struct Target {
    NewFile* file;
    std::string* failure;
  } target{file, failure};
  if (setjmp(png_jmpbuf(png)) != 0) return false;
  const auto append = [](png_structp to, png_bytep data, std::size_t bytes) {
    auto* out = static_cast<Target*>(png_get_io_ptr(to));
    try {  // No exception may pass the library.
      out->file->Write(data, bytes);
      return;
    } catch (const UsageError& error) {
      *out->failure = error.what();
    }
    png_error(to, "not written");
  };
  png_set_write_fn(png, &target, append, [](png_structp) {});
  constexpr int kColours[] = {0, PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY_ALPHA, PNG_COLOR_TYPE_RGB,
                              PNG_COLOR_TYPE_RGB_ALPHA};
  png_set_user_limits(png, 0x7FFFFFFF, 0x7FFFFFFF);
  png_set_IHDR(png, info, static_cast<png_uint_32>(pixels.width), static_cast<png_uint_32>(pixels.height),
               pixels.value_bytes == 2 ? 16 : 8, kColours[pixels.channels], PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  // Fast, and on photographs as small as the slower settings within a few percent.
  png_set_compression_level(png, 2);
  png_set_filter(png, 0, PNG_FILTER_SUB | PNG_FILTER_UP);
  png_write_info(png, info);
  png_set_swap(png);
  for (std::size_t y = 0; y < pixels.height; ++y) {
    png_write_row(png, reinterpret_cast<png_const_bytep>(pixels.data.get() + y * pixels.RowBytes()));
  }
  png_write_end(png, nullptr);
  return true;
}

void WritePng(const std::string& path, const Pixels& pixels, NewFile* file) {
  std::string failure = "cannot write " + path + ": the picture does not encode";
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, LeavePng, IgnoreWarning);
  png_infop info = png == nullptr ? nullptr : png_create_info_struct(png);
  const bool done = info != nullptr && EncodePng(png, info, pixels, file, &failure);
  png_destroy_write_struct(&png, &info);
  if (!done) throw UsageError(failure);
}

// --- PPM and PGM: "P6" or "P5", then width, height and the largest value as texts, one space, and the pixels.

class PnmHeader {
 public:
  explicit PnmHeader(std::string_view text) : text_(text) {}

  // The next number, after spaces and comments; 0 where there is none.
  std::size_t Number() {
    while (at_ < text_.size() && (IsSpace(text_[at_]) || text_[at_] == '#')) {
      if (text_[at_] == '#') at_ = std::min(text_.find('\n', at_), text_.size());
      ++at_;
    }
    std::size_t number = 0;
    for (; at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '9' && number < 1000000000; ++at_) {
      number = number * 10 + static_cast<std::size_t>(text_[at_] - '0');
    }
    return number;
  }

  // Where the pixels start: after one space.
  std::size_t End() const { return at_ < text_.size() && IsSpace(text_[at_]) ? at_ + 1 : text_.size() + 1; }

 private:
  static bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

  std::string_view text_;
  std::size_t at_ = 2;
};

Pixels ReadPnm(const FileBytes& file) {
  const std::string_view text(reinterpret_cast<const char*>(file.data.get()), file.size);
  if (!text.starts_with("P5") && !text.starts_with("P6")) NotWhole(file.path);
  PnmHeader header(text);
  Pixels pixels;
  pixels.width = header.Number();
  pixels.height = header.Number();
  const std::size_t largest = header.Number();
  pixels.channels = text[1] == '5' ? 1 : 3;
  pixels.white = static_cast<double>(largest);
  pixels.value_bytes = largest > 255 ? 2 : 1;
  const bool sized = pixels.width > 0 && pixels.height > 0 && largest > 0 && largest <= 65535;
  if (!sized || header.End() > file.size || (file.size - header.End()) / pixels.height < pixels.RowBytes()) {
    NotWhole(file.path);
  }
  const std::size_t bytes = pixels.RowBytes() * pixels.height;
  pixels.data = NewBytes(bytes);
  std::memcpy(pixels.data.get(), file.data.get() + header.End(), bytes);
  if (pixels.value_bytes == 2) {  // stored with the high byte first
    for (std::size_t i = 0; i < bytes; i += 2) std::swap(pixels.data.get()[i], pixels.data.get()[i + 1]);
  }
  return pixels;
}

void WritePnm(Pixels pixels, NewFile* file) {
  file->Write((pixels.channels == 1 ? "P5\n" : "P6\n") + std::to_string(pixels.width) + ' ' +
              std::to_string(pixels.height) + (pixels.value_bytes == 2 ? "\n65535\n" : "\n255\n"));
  const std::size_t bytes = pixels.RowBytes() * pixels.height;
  if (pixels.value_bytes == 2) {
    for (std::size_t i = 0; i < bytes; i += 2) std::swap(pixels.data.get()[i], pixels.data.get()[i + 1]);
  }
  file->Write(pixels.data.get(), bytes);
}

// --- Between pixels of C values and C planes.

template <typename Value, typename Element, typename Convert>
void ToPlanes(const Pixels& pixels, std::byte* target, Convert convert) {
  const std::size_t plane = pixels.width * pixels.height;
  for (std::size_t i = 0; i < plane; ++i) {
    for (std::size_t c = 0; c < pixels.channels; ++c) {
      Value value;
      std::memcpy(&value, pixels.data.get() + (i * pixels.channels + c) * sizeof value, sizeof value);
      const Element element = convert(value);
      std::memcpy(target + (c * plane + i) * sizeof element, &element, sizeof element);
    }
  }
}

template <typename Element, typename Value, typename Convert>
void FromPlanes(const std::byte* source, Pixels* pixels, Convert convert) {
  const std::size_t plane = pixels->width * pixels->height;
  for (std::size_t i = 0; i < plane; ++i) {
    for (std::size_t c = 0; c < pixels->channels; ++c) {
      Element element;
      std::memcpy(&element, source + (c * plane + i) * sizeof element, sizeof element);
      const Value value = convert(element);
      std::memcpy(pixels->data.get() + (i * pixels->channels + c) * sizeof value, &value, sizeof value);
    }
  }
}

std::uint8_t Level(float value) {
  if (!(value > 0.0F)) return 0;  // NaN, too
  return static_cast<std::uint8_t>(std::lround(std::min(value, 1.0F) * 255.0F));
}

template <typename Value>
Tensor AsTensor(const Pixels& pixels, ElementType type) {
  Tensor tensor{type,
                {1, static_cast<unsigned int>(pixels.channels), static_cast<unsigned int>(pixels.height),
                 static_cast<unsigned int>(pixels.width)},
                {}};
  const auto data = NewBytes(tensor.Bytes());
  if (type == ElementType::kFloat32) {
    const auto white = static_cast<float>(pixels.white);
    ToPlanes<Value, float>(pixels, data.get(), [white](Value v) { return static_cast<float>(v) / white; });
  } else if (type == ElementType::kUint16) {
    ToPlanes<Value, std::uint16_t>(pixels, data.get(), [](Value v) { return static_cast<std::uint16_t>(v); });
  } else {
    ToPlanes<Value, std::uint8_t>(pixels, data.get(), [](Value v) { return static_cast<std::uint8_t>(v); });
  }
  tensor.data = data;
  return tensor;
}

// The sizes of a tensor that is a picture: at most C x H x W, with only ones before.
std::optional<Pixels> AsPicture(const Dims& dims) {
  Pixels pixels;
  pixels.width = pixels.height = pixels.channels = 1;
  std::size_t* const parts[] = {&pixels.width, &pixels.height, &pixels.channels};
  for (std::size_t position = 0; position < dims.size(); ++position) {
    const unsigned int extent = dims[dims.size() - 1 - position];
    if (position < 3) {
      *parts[position] = extent;
    } else if (extent != 1) {
      return std::nullopt;
    }
  }
  return pixels;
}

}  // namespace

Tensor ReadPicture(const FileBytes& file, std::optional<ElementType> type) {
  if (type && *type != ElementType::kUint8 && *type != ElementType::kUint16 &&
      *type != ElementType::kFloat32) {
    throw UsageError(file.path + ": a picture is read as uint8, uint16 or float32, not " + Name(*type));
  }
  const bool is_png =
      file.size >= 8 && png_sig_cmp(reinterpret_cast<png_const_bytep>(file.data.get()), 0, 8) == 0;
  const Pixels pixels = is_png ? ReadPng(file) : ReadPnm(file);
  if (pixels.value_bytes == 1) return AsTensor<std::uint8_t>(pixels, type.value_or(ElementType::kUint8));
  if (type == ElementType::kUint8) {
    throw UsageError(file.path +
                     " has 16 bits a value, which uint8 does not hold; read it as uint16 or float32");
  }
  return AsTensor<std::uint16_t>(pixels, type.value_or(ElementType::kUint16));
}

void CheckIsPicture(const std::string& path, ElementType type, const Dims& dims) {
  if (type != ElementType::kUint8 && type != ElementType::kUint16 && type != ElementType::kFloat32) {
    throw UsageError(path + ": a picture holds uint8, uint16 or float32, not " + Name(type));
  }
  const std::optional<Pixels> size = AsPicture(dims);
  const bool channels_fit = size && (size->channels == 1 || size->channels == 3 ||
                                     (IsPng(path) && (size->channels == 2 || size->channels == 4)));
  if (!channels_fit || size->height == 0 || size->width == 0) {
    throw UsageError(path + ": a picture has one batch item and " +
                     (IsPng(path) ? "1 to 4 channels" : "1 or 3 channels") + ", the output is " +
                     ShapeText(dims));
  }
}

void WritePicture(const std::string& path, const Tensor& tensor, NewFile* file) {
  Pixels pixels = AsPicture(tensor.dims).value();
  pixels.value_bytes = tensor.type == ElementType::kUint16 ? 2 : 1;
  pixels.data = NewBytes(pixels.RowBytes() * pixels.height);
  const std::byte* const data = tensor.data.get();
  if (tensor.type == ElementType::kFloat32) {
    FromPlanes<float, std::uint8_t>(data, &pixels, Level);
  } else if (tensor.type == ElementType::kUint16) {
    FromPlanes<std::uint16_t, std::uint16_t>(data, &pixels, [](std::uint16_t v) { return v; });
  } else {
    FromPlanes<std::uint8_t, std::uint8_t>(data, &pixels, [](std::uint8_t v) { return v; });
  }
  if (IsPng(path)) {
    WritePng(path, pixels, file);
  } else {
    WritePnm(std::move(pixels), file);
  }
}

std::string PngOf(unsigned int height, unsigned int width, const std::vector<unsigned char>& rows) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.height = height;
  image.width = width;
  image.format = PNG_FORMAT_RGB;
  png_alloc_size_t bytes = PNG_IMAGE_PNG_SIZE_MAX(image);
  std::string png(bytes, '\0');
  if (png_image_write_to_memory(&image, png.data(), &bytes, 0, rows.data(), 0, nullptr) == 0)
    throw std::bad_alloc();
  png.resize(bytes);
  return png;
}

}  // namespace vekrun
