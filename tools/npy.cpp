#include "npy.h"

#include <charconv>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

#include "usage_error.h"

namespace vekrun {
namespace {

constexpr std::string_view kMagic = "\x93NUMPY";

[[noreturn]] void NotWhole(const std::string& path) { throw UsageError(path + " is not a whole .npy file"); }

// The header is a Python dictionary of three entries: {'descr': '<f4', 'fortran_order': False, 'shape': (1, 3), }.
// What it takes from the text, it returns; what does not follow, is no header.
class Header {
 public:
  explicit Header(std::string_view text) : rest_(text) {}

  bool Take(char wanted) {
    SkipSpaces();
    if (rest_.empty() || rest_[0] != wanted) return false;
    rest_.remove_prefix(1);
    return true;
  }

  std::optional<std::string_view> TakeQuoted() {
    const char quote = Take('\'') ? '\'' : '"';
    if (quote == '"' && !Take('"')) return std::nullopt;
    const std::size_t end = rest_.find(quote);
    if (end == std::string_view::npos) return std::nullopt;
    const std::string_view text = rest_.substr(0, end);
    rest_.remove_prefix(end + 1);
    return text;
  }

  // Everything up to the bracket that closes the one at hand: the type of a record, which is not read further.
  std::string_view TakeBracketed() {
    const std::size_t end = rest_.rfind(']');
    const std::string_view text = rest_.substr(0, end == std::string_view::npos ? end : end + 1);
    rest_.remove_prefix(text.size());
    return text;
  }

  std::optional<bool> TakeTruth() {
    SkipSpaces();
    for (const std::string_view word : {"True", "False"}) {
      if (rest_.substr(0, word.size()) != word) continue;
      rest_.remove_prefix(word.size());
      return word == "True";
    }
    return std::nullopt;
  }

  std::optional<std::uint64_t> TakeNumber() {
    SkipSpaces();
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), number);
    if (error != std::errc{}) return std::nullopt;
    rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
    if (!rest_.empty() && rest_[0] == 'L') rest_.remove_prefix(1);  // as Python 2 wrote it
    return number;
  }

  std::optional<std::vector<std::uint64_t>> TakeTuple() {
    if (!Take('(')) return std::nullopt;
    std::vector<std::uint64_t> numbers;
    while (!Take(')')) {
      if (!numbers.empty() && !Take(',')) return std::nullopt;
      if (Take(')')) break;
      const auto number = TakeNumber();
      if (!number) return std::nullopt;
      numbers.push_back(*number);
    }
    return numbers;
  }

 private:
  void SkipSpaces() {
    while (!rest_.empty() && (rest_[0] == ' ' || rest_[0] == '\n')) rest_.remove_prefix(1);
  }

  std::string_view rest_;
};

struct Description {
  std::optional<std::string> code;
  std::optional<bool> column_major;
  std::optional<std::vector<std::uint64_t>> extents;
};

Description Describe(std::string_view text, const std::string& path) {
  Description description;
  Header header(text);
  if (!header.Take('{')) NotWhole(path);
  while (!header.Take('}')) {
    const auto key = header.TakeQuoted();
    if (!key || !header.Take(':')) NotWhole(path);
    if (*key == "descr") {
      if (header.Take('['))
        throw UsageError(path + " holds records, [" + std::string(header.TakeBracketed()));
      description.code = header.TakeQuoted();
    } else if (*key == "fortran_order") {
      description.column_major = header.TakeTruth();
    } else if (*key == "shape") {
      description.extents = header.TakeTuple();
    } else {
      NotWhole(path);
    }
    if (!header.Take(',')) {
      if (!header.Take('}')) NotWhole(path);
      break;
    }
  }
  if (!description.code || !description.column_major || !description.extents) NotWhole(path);
  return description;
}

// Byte orders and types that are not read, in words.
std::string CodeText(const std::string& code) {
  std::string text = "'" + code + "'";
  if (code.size() > 1 && code[0] == '>') {
    if (const auto type = TypeOfNumpyCode("<" + code.substr(1)))
      text += std::string(", big-endian ") + Name(*type);
  }
  if (code.size() > 1 && code[1] == 'c') text += ", complex numbers";
  if (code.size() > 1 && (code[1] == 'U' || code[1] == 'S')) text += ", texts";
  if (code.size() > 1 && code[1] == 'O') text += ", Python objects";
  return text;
}

// The same elements with the last dimension varying fastest.
std::shared_ptr<const std::byte> RowMajor(const Tensor& tensor) {
  const std::size_t bytes = ElementBytes(tensor.type);
  auto dense = NewBytes(tensor.Bytes());
  std::vector<std::size_t> steps;  // elements from one position of a dimension to the next, in the file
  std::size_t step = 1;
  for (const unsigned int extent : tensor.dims) {
    steps.push_back(step);
    step *= extent;
  }
  std::vector<unsigned int> at(tensor.dims.size());
  std::size_t source = 0;
  for (std::size_t i = 0; i < tensor.Elements(); ++i) {
    std::memcpy(dense.get() + i * bytes, tensor.data.get() + source * bytes, bytes);
    for (std::size_t d = at.size(); d-- > 0;) {
      source += steps[d];
      if (++at[d] < tensor.dims[d]) break;
      source -= steps[d] * tensor.dims[d];
      at[d] = 0;
    }
  }
  return dense;
}

}  // namespace

Tensor ReadNpy(const FileBytes& file) {
  const std::string_view text(reinterpret_cast<const char*>(file.data.get()), file.size);
  if (text.substr(0, kMagic.size()) != kMagic || text.size() < 10) NotWhole(file.path);
  const auto byte = [&](std::size_t i) {
    return static_cast<std::size_t>(static_cast<unsigned char>(text[i]));
  };
  const std::size_t version = byte(6);
  if (version < 1 || version > 3) {
    throw UsageError(file.path + " is a .npy file of version " + std::to_string(version) + "." +
                     std::to_string(byte(7)) + "; read are 1.0, 2.0 and 3.0");
  }
  const std::size_t preamble = version == 1 ? 10 : 12;
  if (text.size() < preamble) NotWhole(file.path);
  const std::size_t length =
      byte(8) + (byte(9) << 8) + (version == 1 ? 0 : (byte(10) << 16) + (byte(11) << 24));
  if (text.size() - preamble < length) NotWhole(file.path);

  const Description description = Describe(text.substr(preamble, length), file.path);
  const std::optional<ElementType> type = TypeOfNumpyCode(*description.code);
  if (!type) {
    throw UsageError(file.path + " holds elements of type " + CodeText(*description.code) + "; read are " +
                     TypeNames(/*of_layers_only=*/false));
  }
  Tensor tensor{*type, {}, {file.data, file.data.get() + preamble + length}};
  double elements = 1;  // No product of extents is too large for it.
  for (const std::uint64_t extent : *description.extents) {
    elements *= static_cast<double>(extent);
    if (elements > UINT32_MAX || extent > UINT32_MAX) {
      throw UsageError(file.path + " is too large: a buffer is smaller than 4 GiB");
    }
    tensor.dims.push_back(static_cast<unsigned int>(extent));
  }
  if (text.size() - preamble - length < tensor.Bytes()) NotWhole(file.path);
  if (*description.column_major && tensor.dims.size() > 1) tensor.data = RowMajor(tensor);
  return tensor;
}

std::string NpyHeader(ElementType type, const Dims& dims) {
  std::string header = std::string("{'descr': '") + NumpyCode(type) + "', 'fortran_order': False, 'shape': (";
  for (std::size_t i = 0; i < dims.size(); ++i) {
    header += std::to_string(dims[i]);
    if (dims.size() == 1 || i + 1 < dims.size()) header += i + 1 < dims.size() ? ", " : ",";
  }
  header += "), }";
  constexpr std::size_t kPreamble = 10;
  while ((kPreamble + header.size() + 1) % 64 != 0) header += ' ';
  header += '\n';
  std::string text(kMagic);
  text += {'\1', '\0', static_cast<char>(header.size() & 255), static_cast<char>(header.size() >> 8)};
  return text + header;
}

}  // namespace vekrun
