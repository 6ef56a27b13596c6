#include "file_argument.h"

#include <charconv>
#include <string_view>
#include <utility>

#include "usage_error.h"

namespace vekrun {
namespace {

// The whole text as a number of the target's type, or nothing.
template <typename Number>
bool Read(std::string_view text, std::optional<Number>* target) {
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size()) return false;
  *target = value;
  return true;
}

bool ReadShape(std::string_view text, std::optional<std::vector<unsigned int>>* shape) {
  shape->emplace();
  while (true) {
    const std::size_t end = text.find('x');
    std::optional<unsigned int> extent;
    if (!Read(text.substr(0, end), &extent)) return false;
    (*shape)->push_back(*extent);
    if (end == std::string_view::npos) return true;
    text.remove_prefix(end + 1);
  }
}

bool ReadType(std::string_view text, std::optional<ElementType>* type) {
  *type = TypeNamed(text);
  return type->has_value();
}

bool SetOption(std::string_view key, std::string_view value, FileArgument* file) {
  if (key == "type") return ReadType(value, &file->type);
  if (key == "shape") return ReadShape(value, &file->shape);
  if (key == "pack") return Read(value, &file->pack) && *file->pack >= 1;
  if (key == "line") return Read(value, &file->line);
  if (key == "plane") return Read(value, &file->plane);
  if (key == "exp") return Read(value, &file->exp);
  if (key == "zero") return Read(value, &file->zero);
  if (key == "scale") return Read(value, &file->scale);
  throw UsageError("unknown option '" + std::string(key) +
                   "' after a file's name; there are type, shape, pack, " +
                   "line, plane, exp, zero and scale");
}

}  // namespace

FileArgument ParseFileArgument(const std::string& text) {
  FileArgument file;
  std::string_view rest = text;
  // Options are taken off the end, so that a name may hold commas of its own.
  while (true) {
    const std::size_t comma = rest.rfind(',');
    const std::size_t equals = comma == std::string_view::npos ? comma : rest.find('=', comma);
    if (equals == std::string_view::npos) break;
    const std::string_view option = rest.substr(comma + 1);
    if (!SetOption(option.substr(0, equals - comma - 1), rest.substr(equals + 1), &file)) {
      throw UsageError("cannot make sense of '" + std::string(option) + "' in " + text);
    }
    rest = rest.substr(0, comma);
  }
  file.path = rest;
  return file;
}

vek_host::BufAttrs Describe(const FileArgument& file, const std::vector<unsigned int>& dims,
                            zeb::PuxDnnBufAttrsMemFormat format) {
  format.plane_pack = file.pack.value_or(1);
  format.exp = file.exp.value_or(format.exp);
  if (file.zero || file.scale) {
    format.q8a = true;
    format.q8a_zero = file.zero.value_or(format.q8a_zero);
    format.q8a_scale = file.scale.value_or(format.q8a_scale);
  }

  vek_host::BufAttrs attrs(dims, format);
  const double row = static_cast<double>(attrs.RowBytes());
  const double line = file.line ? static_cast<double>(*file.line) : row;
  if (line < row) {
    throw UsageError(file.path + ": line=" + std::to_string(*file.line) + " is less than a row of " +
                     std::to_string(attrs.RowBytes()) + " bytes");
  }
  const double lines = line * static_cast<double>(attrs.GetHeight());
  const double plane = file.plane ? static_cast<double>(*file.plane) : lines;
  if (plane < lines) {
    throw UsageError(file.path + ": plane=" + std::to_string(*file.plane) + " is less than its rows, " +
                     std::to_string(attrs.GetHeight()) + " times " +
                     std::to_string(file.line.value_or(static_cast<unsigned int>(row))) + " bytes");
  }
  double bytes = plane * static_cast<double>(attrs.PlanesPerItem());
  for (std::size_t i = 0; i + 3 < dims.size(); ++i) bytes *= static_cast<double>(dims[i]);
  if (bytes > static_cast<double>(UINT32_MAX) || plane > static_cast<double>(UINT32_MAX)) {
    throw UsageError(file.path + ": a buffer of 4 GiB or more cannot be described");
  }
  if (file.line) {
    attrs.SetLineStride(*file.line);
    attrs.SetPlaneStride(static_cast<unsigned int>(plane));
  }
  if (file.plane) attrs.SetPlaneStride(*file.plane);
  return attrs;
}

}  // namespace vekrun
