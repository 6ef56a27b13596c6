#include "onnx_tensor.h"

#include <cstdint>
#include <cstring>
#include <optional>
#include <protozero/pbf_reader.hpp>
#include <protozero/pbf_writer.hpp>
#include <protozero/varint.hpp>
#include <vector>

#include "usage_error.h"

namespace vekrun {
namespace {

// The message's fields, by their numbers.
enum Field : std::uint32_t {
  kDims = 1,
  kDataType = 2,
  kFloatData = 4,
  kInt32Data = 5,
  kInt64Data = 7,
  kRawData = 9,
  kDoubleData = 10,
  kUint64Data = 11,
  kExternalData = 13,
};

// The values of data_type.
constexpr struct {
  std::int32_t number;
  ElementType type;
} kTypes[] = {
    {1, ElementType::kFloat32},  {2, ElementType::kUint8},   {3, ElementType::kInt8},
    {4, ElementType::kUint16},   {5, ElementType::kInt16},   {6, ElementType::kInt32},
    {7, ElementType::kInt64},    {9, ElementType::kBool},    {10, ElementType::kFloat16},
    {11, ElementType::kFloat64}, {12, ElementType::kUint32}, {13, ElementType::kUint64},
};

std::optional<ElementType> TypeOfNumber(std::int32_t number) {
  for (const auto& entry : kTypes) {
    if (entry.number == number) return entry.type;
  }
  return std::nullopt;
}

// Which field holds elements of that type, one by one.
Field FieldOf(ElementType type) {
  switch (type) {
    case ElementType::kFloat32:
      return kFloatData;
    case ElementType::kFloat64:
      return kDoubleData;
    case ElementType::kInt64:
      return kInt64Data;
    case ElementType::kUint32:
    case ElementType::kUint64:
      return kUint64Data;
    default:
      return kInt32Data;
  }
}

struct Message {
  std::vector<std::int64_t> dims;
  std::int32_t type = 0;
  bool is_external = false;
  std::optional<protozero::data_view> raw;
  // Elements one by one, each field as the bits of its numbers.
  std::vector<std::uint64_t> floats, doubles, int32s, int64s, uint64s;
};

template <typename Number>
std::uint64_t Bits(Number number) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &number, sizeof number);
  return bits;
}

// Repeated numbers, packed or one at a time.
template <typename Number, typename Range, typename Take>
void Append(protozero::pbf_reader* reader, protozero::pbf_wire_type one, Range range, Take take,
            std::vector<std::uint64_t>* target) {
  if (reader->wire_type() == one) {
    target->push_back(Bits<Number>((reader->*take)()));
    return;
  }
  for (const Number number : (reader->*range)()) target->push_back(Bits<Number>(number));
}

Message Read(const FileBytes& file) {
  using protozero::pbf_reader;
  using protozero::pbf_wire_type;
  Message message;
  pbf_reader reader(reinterpret_cast<const char*>(file.data.get()), file.size);
  while (reader.next()) {
    switch (reader.tag()) {
      case kDims: {
        std::vector<std::uint64_t> dims;
        Append<std::int64_t>(&reader, pbf_wire_type::varint, &pbf_reader::get_packed_int64,
                             &pbf_reader::get_int64, &dims);
        for (const std::uint64_t extent : dims) message.dims.push_back(static_cast<std::int64_t>(extent));
        break;
      }
      case kDataType:
        message.type = reader.get_int32();
        break;
      case kFloatData:
        Append<float>(&reader, pbf_wire_type::fixed32, &pbf_reader::get_packed_float, &pbf_reader::get_float,
                      &message.floats);
        break;
      case kDoubleData:
        Append<double>(&reader, pbf_wire_type::fixed64, &pbf_reader::get_packed_double,
                       &pbf_reader::get_double, &message.doubles);
        break;
      case kInt32Data:
        Append<std::int32_t>(&reader, pbf_wire_type::varint, &pbf_reader::get_packed_int32,
                             &pbf_reader::get_int32, &message.int32s);
        break;
      case kInt64Data:
        Append<std::int64_t>(&reader, pbf_wire_type::varint, &pbf_reader::get_packed_int64,
                             &pbf_reader::get_int64, &message.int64s);
        break;
      case kUint64Data:
        Append<std::uint64_t>(&reader, pbf_wire_type::varint, &pbf_reader::get_packed_uint64,
                              &pbf_reader::get_uint64, &message.uint64s);
        break;
      case kRawData:
        message.raw = reader.get_view();
        break;
      case kExternalData:
        message.is_external = true;
        reader.skip();
        break;
      default:
        reader.skip();
    }
  }
  return message;
}

const std::vector<std::uint64_t>& ElementsOf(const Message& message, ElementType type) {
  switch (FieldOf(type)) {
    case kFloatData:
      return message.floats;
    case kDoubleData:
      return message.doubles;
    case kInt64Data:
      return message.int64s;
    case kUint64Data:
      return message.uint64s;
    default:
      return message.int32s;
  }
}

[[noreturn]] void NotWhole(const std::string& path) {
  throw UsageError(path + " is not a whole ONNX tensor (a TensorProto message)");
}

}  // namespace

Tensor ReadOnnxTensor(const FileBytes& file) {
  Message message;
  try {
    message = Read(file);
  } catch (const protozero::exception&) {
    NotWhole(file.path);
  }
  if (message.type == 0) NotWhole(file.path);
  const std::optional<ElementType> type = TypeOfNumber(message.type);
  if (!type) {
    throw UsageError(file.path + " holds elements of ONNX type " + std::to_string(message.type) +
                     "; read are " + TypeNames(/*of_layers_only=*/false));
  }
  if (message.is_external) throw UsageError(file.path + " only tells where its data lies: in another file");

  Tensor tensor{*type, {}, {}};
  double elements = 1;
  for (const std::int64_t extent : message.dims) {
    elements *= static_cast<double>(extent);
    if (extent < 0 || extent > UINT32_MAX || elements > UINT32_MAX) {
      throw UsageError(file.path + " is too large: a buffer is smaller than 4 GiB");
    }
    tensor.dims.push_back(static_cast<unsigned int>(extent));
  }
  if (message.raw) {
    if (message.raw->size() != tensor.Bytes()) NotWhole(file.path);
    tensor.data = {file.data, reinterpret_cast<const std::byte*>(message.raw->data())};
    return tensor;
  }
  const std::vector<std::uint64_t>& numbers = ElementsOf(message, *type);
  if (numbers.size() != tensor.Elements()) NotWhole(file.path);
  const auto data = NewBytes(tensor.Bytes());
  const std::size_t bytes = ElementBytes(*type);
  // The lowest bytes of each number: this machine's order is the files' order.
  for (std::size_t i = 0; i < numbers.size(); ++i) std::memcpy(data.get() + i * bytes, &numbers[i], bytes);
  tensor.data = data;
  return tensor;
}

std::string OnnxTensorHeader(ElementType type, const Dims& dims) {
  std::string header;
  protozero::pbf_writer writer(header);
  for (const unsigned int extent : dims) writer.add_int64(kDims, extent);
  for (const auto& entry : kTypes) {
    if (entry.type == type) writer.add_int32(kDataType, entry.number);
  }
  // The start of a field of bytes: its key, and how many follow.
  protozero::add_varint_to_buffer(
      &header, kRawData << 3 | static_cast<std::uint32_t>(protozero::pbf_wire_type::length_delimited));
  protozero::add_varint_to_buffer(&header, ElementCount(dims) * ElementBytes(type));
  return header;
}

}  // namespace vekrun
