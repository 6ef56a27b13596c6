#include "file_argument.h"

#include <charconv>
#include <set>
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

GeneratedInput* Generated(FileArgument* file, std::string_view key) {
  if (!file->generated) throw UsageError(file->path + ": " + std::string(key) + "= is for generated inputs");
  return &*file->generated;
}

bool SetOption(std::string_view key, std::string_view value, FileArgument* file) {
  if (key == "type") return (file->type = TypeNamed(value)).has_value();
  if (key == "shape") return (file->shape = ParseShape(value)).has_value();
  if (key == "pack") return Read(value, &file->pack) && *file->pack >= 1;
  if (key == "line") return Read(value, &file->line);
  if (key == "plane") return Read(value, &file->plane);
  if (key == "exp") return Read(value, &file->exp);
  if (key == "zero") return Read(value, &file->zero);
  if (key == "scale") return Read(value, &file->scale);
  if (key == "offset") return Read(value, &file->offset);
  if (key == "member") return (file->member = value).has_value();
  if (key == "seed") return Read(value, &Generated(file, key)->seed);
  if (key == "min") return Read(value, &Generated(file, key)->min);
  if (key == "max") return Read(value, &Generated(file, key)->max);
  if (key == "value") return Read(value, &Generated(file, key)->value);
  throw UsageError(
      "unknown option '" + std::string(key) +
      "' after a file's name; there are type, shape, pack, line, plane, exp, zero, scale, member and "
      "offset, and seed, min, max and value of generated inputs");
}

// "random:1x3x8x8" is no file, but tells what to make.
void ReadGenerated(std::string_view name, FileArgument* file) {
  const std::size_t colon = name.find(':');
  const std::string kind(name.substr(0, colon));
  if (colon == std::string_view::npos || !IsGeneratedKind(kind)) return;
  file->generated = GeneratedInput{kind, {}, {}, {}, {}};
  file->shape = ParseShape(name.substr(colon + 1));
  if (!file->shape) throw UsageError("cannot make sense of the shape in " + std::string(name));
}

// "arrays.npz:x" is the member x.
void ReadMember(FileArgument* file) {
  const std::size_t colon = file->path.rfind(".npz:");
  if (colon == std::string::npos) return;
  file->member = file->path.substr(colon + 5);
  file->path.resize(colon + 4);
}

bool IsOfShapes(std::string_view text) {
  return text.find_first_not_of("0123456789,x[] ") == std::string_view::npos;
}

}  // namespace

std::optional<Dims> ParseShape(std::string_view text) {
  const bool bracketed = text.size() >= 2 && text.front() == '[' && text.back() == ']';
  if (bracketed) text = text.substr(1, text.size() - 2);
  Dims dims;
  if (bracketed && text.empty()) return dims;
  while (true) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    const std::size_t end = text.find_first_of("x,");
    std::optional<unsigned int> extent;
    if (!Read(text.substr(0, end), &extent)) return std::nullopt;
    dims.push_back(*extent);
    if (end == std::string_view::npos) return dims;
    text.remove_prefix(end + 1);
  }
}

FileArgument ParseFileArgument(const std::string& text) {
  FileArgument file;
  std::string_view rest = text;
  // Options are taken off the end, so that a name may hold commas of its own. Only a shape's value does.
  std::vector<std::string_view> options;
  while (true) {
    const std::size_t equals = rest.rfind('=');
    const std::size_t comma = equals == std::string_view::npos ? equals : rest.rfind(',', equals);
    if (comma == std::string_view::npos) break;
    const std::string_view value = rest.substr(equals + 1);
    if (value.find(',') != std::string_view::npos && !IsOfShapes(value)) break;
    options.push_back(rest.substr(comma + 1));
    rest = rest.substr(0, comma);
  }
  file.path = file.name = rest;
  ReadGenerated(rest, &file);
  ReadMember(&file);
  std::set<std::string_view> given;
  if (file.generated) given.insert("shape");
  if (file.member) given.insert("member");
  for (auto option = options.rbegin(); option != options.rend(); ++option) {
    const std::size_t equals = option->find('=');
    const std::string_view key = option->substr(0, equals);
    if (!given.insert(key).second) throw UsageError(std::string(key) + "= is given twice in " + text);
    if (!SetOption(key, option->substr(equals + 1), &file)) {
      throw UsageError("cannot make sense of '" + std::string(*option) + "' in " + text +
                       (key == "type" ? "; types are " + TypeNames(/*of_layers_only=*/false) : ""));
    }
  }
  if (file.member) file.name = file.path + ":" + *file.member;
  return file;
}

vek_host::BufAttrs Describe(const FileArgument& file, const Dims& dims, zeb::PuxDnnBufAttrsMemFormat format) {
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
    throw UsageError(file.name + ": line=" + std::to_string(*file.line) + " is less than a row of " +
                     std::to_string(attrs.RowBytes()) + " bytes");
  }
  const double lines = line * static_cast<double>(attrs.GetHeight());
  const double plane = file.plane ? static_cast<double>(*file.plane) : lines;
  if (plane < lines) {
    throw UsageError(file.name + ": plane=" + std::to_string(*file.plane) + " is less than its rows, " +
                     std::to_string(attrs.GetHeight()) + " times " +
                     std::to_string(file.line.value_or(static_cast<unsigned int>(row))) + " bytes");
  }
  double bytes = plane * static_cast<double>(attrs.PlanesPerItem());
  for (std::size_t i = 0; i + 3 < dims.size(); ++i) bytes *= static_cast<double>(dims[i]);
  if (bytes > static_cast<double>(UINT32_MAX) || plane > static_cast<double>(UINT32_MAX)) {
    throw UsageError(file.name + ": a buffer of 4 GiB or more cannot be described");
  }
  if (file.line) {
    attrs.SetLineStride(*file.line);
    attrs.SetPlaneStride(static_cast<unsigned int>(plane));
  }
  if (file.plane) attrs.SetPlaneStride(*file.plane);
  return attrs;
}

}  // namespace vekrun
