#include "layer_case.h"

#include <cmath>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>

#include "custom_ops/vek_common.h"
#include "model/model.h"
#include "reference/list_parser_ref.h"
#include "support/guarded_buffer.h"
#include "support/plugin.h"
#include "support/refusals.h"

namespace vek_fuzz {
namespace {

using namespace vek_model;
using vek_test::BufAttrsList;
using vek_test::GuardedBuffer;
using vek_test::Plugin;
using vek_test::Setup;
using Dims = std::vector<unsigned>;

// The input's bytes as decisions. When they run out, every decision is the first of its choices.
class Bytes {
 public:
  Bytes(const std::uint8_t* data, std::size_t size) : data_(data), end_(data + size) {}

  bool Empty() const { return data_ == end_; }
  std::uint8_t Byte() { return Empty() ? std::uint8_t{0} : *data_++; }
  // A number below n.
  unsigned Below(unsigned n) { return Byte() % n; }
  bool OneIn(unsigned n) { return Byte() % n == n - 1; }
  u32 Word() { return u32{Byte()} | u32{Byte()} << 8 | u32{Byte()} << 16 | u32{Byte()} << 24; }
  template <typename T>
  T OneOf(std::initializer_list<T> values) {
    return values.begin()[Below(static_cast<unsigned>(values.size()))];
  }
  unsigned Extent() { return OneOf({1U, 2U, 3U, 4U, 5U, 1U, 2U, 3U, 6U, 7U, 8U, 16U, 17U, 0U}); }
  Dims Shape(std::size_t rank) {
    Dims dims(rank);
    for (unsigned& dim : dims) dim = Extent();
    return dims;
  }

 private:
  const std::uint8_t* data_;
  const std::uint8_t* end_;
};

std::string List(const Dims& numbers) {
  std::string text = "[";
  for (std::size_t i = 0; i < numbers.size(); ++i)
    text.append(i == 0 ? "" : ",").append(std::to_string(numbers[i]));
  return text.append("]");
}
std::string Text(u64 number) { return std::to_string(number); }

// Any element format that moves: floats, 32, 16 or 8 bits.
Format AnyFormat(Bytes& bytes, int pack = 1) {
  const unsigned kind = bytes.Below(4);
  return Buf::Planar(kind < 2 ? 32 : kind == 2 ? 16 : 8, kind == 0, pack);
}
Buf Layout(Bytes& bytes, Dims dims, Format format) {
  const int pack = bytes.OneOf({1, 1, 4, 2, 3, 16});
  if (dims.size() == 4) format.plane_pack = pack;
  Buf buf = Buf::Packed(std::move(dims), format);
  const unsigned eb = buf.ElementBytes();
  if (buf.dims.size() == 4 && bytes.OneIn(2)) buf.Pad(bytes.Below(5) * eb, bytes.Below(4) * 4);
  return buf;
}

// --- A setup that the layer takes, by the layer's type.

Setup Unary(Bytes& bytes, AttrMap attrs) {
  const Dims dims = bytes.Shape(4);
  return {std::move(attrs), {Buf::Float(dims)}, {Buf::Float(dims)}};
}

Setup MakeSetup(const std::string& type, Bytes& bytes) {
  if (type == "SOFTMAX")
    return Unary(bytes, bytes.OneIn(4) ? AttrMap{} : AttrMap{{"axis", Text(bytes.Below(4))}});
  if (type == "NORMALIZE") {
    AttrMap attrs;
    if (bytes.OneIn(2)) attrs["across_spatial"] = Text(bytes.Below(2));
    if (bytes.OneIn(2)) attrs["channel_shared"] = Text(bytes.Below(2));
    return Unary(bytes, attrs);
  }
  if (type == "ARGMAX") {
    const unsigned which = bytes.Below(4);
    AttrMap attrs = {{"axis", Text(bytes.Below(4))}};
    if (which == 2) attrs = {{"top_k", Text(bytes.Below(5))}};
    if (which == 3) attrs = {{"out_max_val", Text(bytes.Below(2))}};
    const Dims dims = bytes.Shape(4);
    return {attrs, {Buf::Float(dims)}, {Buf::Float({dims[0] * 4, dims[0], dims[1] * dims[2], dims[3]})}};
  }
  if (type == "ELTWISE") {
    const unsigned method = bytes.OneOf({0U, 1U, 6U, 7U});
    AttrMap attrs = {{"method", Text(method)}};
    const Dims dims = bytes.Shape(4);
    Setup setup{{}, {Buf::Float(dims)}, {Buf::Float(dims)}};
    if (method == 1 || method == 7) {
      if (bytes.OneIn(2)) {
        attrs["has_k"] = "1";
        attrs["k"] =
            bytes.OneOf({"2", "-1", "0.5", "-1.0000001", "2.2", "-0.5", "3", "0", "inf", "nan", "1e30"});
      }
    } else {
      Dims small = dims;
      unsigned word = 0;
      const unsigned repeats = bytes.Below(16);
      for (std::size_t i = 0; i < 4; ++i) {
        if ((repeats >> (3 - i) & 1) != 0) small[i] = 1, word |= 8U >> i;
      }
      const bool first = bytes.OneIn(3);
      const char* const letter = first ? "A" : "B";
      if (word != 0 || bytes.OneIn(2)) {
        attrs[std::string("broadcast_").append(letter)] = "1";
        attrs[std::string("word_").append(letter)] =
            bytes.OneIn(2) ? std::string("0x").append(1, "0123456789abcdef"[word]) : Text(word);
      }
      // The loops take their sizes from input 0; a repeated A is described by the full shape.
      setup.in.push_back(Buf::Float(first ? dims : small));
    }
    setup.attrs = attrs;
    return setup;
  }
  if (type == "MATMUL") {
    const Dims a = bytes.Shape(4);
    const AttrMap attrs = {{"trans_b", bytes.OneOf({"1", "0", "yes"})}};
    if (bytes.OneIn(2)) return {attrs, {Buf::Float(a)}, {Buf::Float({a[0], a[1], 1, a[1]})}};
    const Dims b = {a[0], a[2] * a[3], bytes.Extent(), bytes.Extent()};
    return {attrs, {Buf::Float(a), Buf::Float(b)}, {Buf::Float({a[0], a[1], b[2], b[3]})}};
  }
  const Format format = AnyFormat(bytes);
  const Dims dims = bytes.Shape(4);
  const unsigned b = 1 + bytes.Below(3);
  const auto packed = [&](Dims shape) { return Buf::Packed(std::move(shape), format); };
  if (type == "RESHAPE") {
    const unsigned r = 1 + bytes.Below(3);
    Buf in = packed({dims[0], dims[1] * r * r, dims[2], dims[3]});
    if (bytes.OneIn(4)) in.Pad(4, 0);
    return {{{"pixelshuffler", Text(r)}}, {in}, {packed({dims[0], dims[1], dims[2] * r, dims[3] * r})}};
  }
  if (type == "DATA_STRIDE_CONV") {
    const Dims shape = bytes.OneIn(4) ? bytes.Shape(1 + bytes.Below(5)) : dims;
    return {{}, {Layout(bytes, shape, format)}, {Layout(bytes, shape, format)}};
  }
  if (type == "PERMUTE") {
    const Dims shape = bytes.OneIn(4) ? bytes.Shape(1 + bytes.Below(5)) : dims;
    const unsigned usual = bytes.Below(4);
    Dims axes = usual == 0 ? Dims{0, 2, 3, 1} : usual == 1 ? Dims{0, 3, 1, 2} : Dims{};
    while (axes.size() < shape.size()) {
      unsigned axis = bytes.Below(static_cast<unsigned>(shape.size()));
      while (std::find(axes.begin(), axes.end(), axis) != axes.end()) {
        axis = (axis + 1) % static_cast<unsigned>(shape.size());
      }
      axes.push_back(axis);
    }
    Dims out;
    for (std::size_t i = 0; i < shape.size(); ++i) out.push_back(axes[i] < shape.size() ? shape[axes[i]] : 1);
    const bool plain = bytes.OneIn(2);
    return {{{"axes", List(axes)}},
            {plain ? packed(shape) : Layout(bytes, shape, format)},
            {plain ? packed(out) : Layout(bytes, out, format)}};
  }
  if (type == "BROADCAST") {
    Dims in = dims;
    Dims size(4);
    for (std::size_t i = 1; i < 4; ++i) {
      if (bytes.OneIn(2)) in[i] = 1, size[i] = 1;
    }
    Setup setup{{{"size", List(size)}}, {packed(in)}, {packed(dims)}};
    if (bytes.OneIn(3)) setup.in[0].Pad(4, 0);
    if (bytes.OneIn(3)) setup.out[0].Pad(4 * bytes.Below(4), 0);
    return setup;
  }
  if (type == "SWCONCAT") {
    const Dims shape = bytes.OneIn(3) ? bytes.Shape(5) : dims;
    const unsigned axis = bytes.Below(static_cast<unsigned>(shape.size()));
    Setup setup{{{"axis", Text(axis)}}, {}, {}};
    Dims out = shape;
    out[axis] = 0;
    for (unsigned i = 0; i <= bytes.Below(4); ++i) {
      Dims in = shape;
      if (axis != 0 || shape.size() == 5) in[axis] = bytes.Extent();
      out[axis] += in[axis];
      setup.in.push_back(packed(in));
    }
    setup.out.push_back(packed(out));
    return setup;
  }
  if (type == "DEPTHTOSPACE") {
    return {{{"block_size", Text(b)}},
            {packed({dims[0], dims[1] * b * b, dims[2], dims[3]})},
            {packed({dims[0], dims[1], dims[2] * b, dims[3] * b})}};
  }
  if (type == "SPACETODEPTH") {
    return {{{"block_size", Text(b)}},
            {packed({dims[0], dims[1], dims[2] * b, dims[3] * b})},
            {packed({dims[0], dims[1] * b * b, dims[2], dims[3]})}};
  }
  if (type == "SPACETOBATCH" || type == "BATCHTOSPACE") {
    const bool to_batch = type == "SPACETOBATCH";
    const unsigned bw = 1 + bytes.Below(3);
    Dims pads = {bytes.Below(4), bytes.Below(4), bytes.Below(4), bytes.Below(4)};
    Dims picture = {dims[0], dims[1], dims[2] * b, dims[3] * bw};  // with the padding
    pads[0] = std::min(pads[0], picture[2]);
    pads[1] = std::min(pads[1], picture[2] - pads[0]);
    pads[2] = std::min(pads[2], picture[3]);
    pads[3] = std::min(pads[3], picture[3] - pads[2]);
    const Dims phases = {dims[0] * b * bw, dims[1], dims[2], dims[3]};
    picture[2] -= pads[0] + pads[1];
    picture[3] -= pads[2] + pads[3];
    Buf a = packed(picture);
    if (bytes.OneIn(2)) {
      a.format.q8a = true;
      a.format.q8a_zero = bytes.Byte();
      a.format.exp = static_cast<int>(bytes.Below(40)) - 20;
    }
    AttrMap attrs = {{"block_shape", List({b, bw})}, {to_batch ? "paddings" : "crops", List(pads)}};
    if (to_batch) return {attrs, {a}, {packed(phases)}};
    return {attrs, {packed(phases)}, {a}};
  }
  if (type == "GATHER") {
    const unsigned axis = bytes.Below(4);
    const unsigned count = bytes.Extent();
    Dims out = dims;
    out[axis] = count;
    return {{{"axis", Text(axis)}}, {packed(dims), Buf::Int(32, {count})}, {packed(out)}};
  }
  // PAD
  Dims p(8);
  for (std::size_t i = bytes.OneIn(2) ? 0 : 4; i < 8; ++i) p[i] = bytes.Below(5);
  Dims out = dims;
  for (std::size_t i = 0; i < 4; ++i) out[i] += p[2 * i] + p[2 * i + 1];
  Setup setup{{{"pad_mode", Text(bytes.Below(6))},
               {"pad", bytes.OneOf({"0", "3", "-1", "255", "70000", "4000000000"})},
               {"pad_shape", List(p)},
               {"format", bytes.OneOf({"[0,1,2,3]", "[0,2,3,1]"})}},
              {Layout(bytes, dims, format)},
              {packed(out)}};
  if (bytes.OneIn(3)) setup.out[0].Pad(4 * bytes.Below(4), 4 * bytes.Below(3));
  if (bytes.OneIn(3)) setup.out[0].format.exp = static_cast<int>(bytes.Below(40)) - 20;
  if (bytes.OneIn(6)) {
    setup.in[0].format.q8a = true;
    setup.in[0].format.q8a_zero = bytes.Byte();
    setup.in[0].format.q8a_scale = bytes.OneOf({1.0F, 0.5F, 0.01F, -2.0F});
  }
  return setup;
}

// --- What a host or a network file may say instead.

std::string AnyText(Bytes& bytes) {
  if (bytes.OneIn(3)) {
    std::string text;
    for (unsigned i = bytes.Below(14); i > 0; --i)
      text += bytes.OneOf({'[', ']', ',', '1', '0', '2', '-', ' ', 'x', '9'});
    return text;
  }
  return bytes.OneOf({"",
                      "abc",
                      "-1",
                      "0",
                      "1",
                      "2",
                      "3",
                      "4",
                      "5",
                      "4294967297",
                      "99999999999999999999",
                      "65536",
                      "[1]",
                      "[1,2]",
                      "[0,1,2,3]",
                      "[0,2,3,1]",
                      "[0,3,1,2]",
                      "[3,2,1,0]",
                      "[1,1,1,1]",
                      "[[1,0],[0,1]]",
                      "[0,0,0,0,1,1,1,1]",
                      "[2,2]",
                      "[2,2]\n",
                      "[a,b,c,d]",
                      "[1,2,99999999999]",
                      "[0,0]",
                      "0x3",
                      " 2",
                      "1.5",
                      "true",
                      "-0x7",
                      "[4294967295,1]"});
}

void SpoilBuf(Buf& buf, Bytes& bytes) {
  const auto other = [&](unsigned value) {
    switch (bytes.Below(7)) {
      case 0:
        return value + 1;
      case 1:
        return value - 1;
      case 2:
        return 0U;
      case 3:
        return value * 2;
      case 4:
        return unsigned{bytes.Byte()};
      case 5:
        return value + 4;
      default:
        return bytes.Word();
    }
  };
  switch (bytes.Below(16)) {
    case 0:
      if (!buf.dims.empty()) {
        unsigned& dim = buf.dims[bytes.Below(8) % buf.dims.size()];
        dim = other(dim);
      }
      break;
    case 1:
      if (!buf.dims.empty()) buf.dims.pop_back();
      break;
    case 2:
      buf.dims.insert(buf.dims.begin(), 1 + bytes.Below(2));
      break;
    case 3:
      buf.format.bitdepth = bytes.OneOf({8, 16, 32, 12, 24, 64, 0, 4, 1, -8});
      break;
    case 4:
      buf.format.plane_pack = bytes.OneOf({1, 4, 2, 3, 16, 0, -1, 1000000});
      break;
    case 5:
      buf.format.float_ = !buf.format.float_;
      break;
    case 6:
      buf.format.q8a = !buf.format.q8a;
      buf.format.q8a_zero = bytes.Byte();
      break;
    case 7:
      buf.format.exp = static_cast<int>(bytes.Word());
      break;
    case 8:
      buf.line_stride = other(buf.line_stride);
      break;
    case 9:
      buf.plane_stride = other(buf.plane_stride);
      break;
    case 10:
      buf.size = other(buf.size);
      break;
    case 11:
      if (!buf.strides.empty()) {
        unsigned& s = buf.strides[bytes.Below(8) % buf.strides.size()];
        s = other(s);
      }
      break;
    case 12:
      if (!buf.strides.empty()) buf.strides.pop_back();
      break;
    case 13:
      buf.strided = bytes.OneIn(2);
      break;
    case 14:
      buf.interleaved = bytes.OneIn(2);
      break;
    default:
      buf.nchw = {bytes.Extent(), bytes.Extent(), bytes.Extent(), bytes.Extent()};
      break;
  }
}

void Spoil(Setup& setup, Bytes& bytes) {
  switch (bytes.Below(8)) {
    case 0:
      if (!setup.attrs.empty()) {
        // In the order of the keys: the map's own differs between implementations.
        const std::map<std::string, std::string> sorted(setup.attrs.begin(), setup.attrs.end());
        setup.attrs.erase(
            std::next(sorted.begin(), bytes.Below(static_cast<unsigned>(sorted.size())))->first);
      }
      break;
    case 1:
    case 2:
      if (!setup.attrs.empty()) {
        const std::map<std::string, std::string> sorted(setup.attrs.begin(), setup.attrs.end());
        setup.attrs[std::next(sorted.begin(), bytes.Below(static_cast<unsigned>(sorted.size())))->first] =
            AnyText(bytes);
      }
      break;
    case 3:
      setup.attrs[bytes.OneOf({"axis", "other", "top_k", "k", "has_k", "word_A", "broadcast_B", "pad"})] =
          AnyText(bytes);
      break;
    case 4: {
      std::vector<Buf>& list = bytes.OneIn(3) ? setup.out : setup.in;
      if (bytes.OneIn(2) || list.empty()) {
        if (!list.empty()) list.pop_back();
      } else {
        list.push_back(list.front());
      }
      break;
    }
    default: {
      std::vector<Buf>& list = bytes.OneIn(2) ? setup.out : setup.in;
      if (!list.empty()) SpoilBuf(list[bytes.Below(4) % list.size()], bytes);
    }
  }
}

// --- Running it.

[[noreturn]] void Differ(const std::string& type, const std::string& what) {
  std::cerr << type << ": " << what << std::endl;
  std::abort();
}

std::string Print(const Log& log) {
  std::ostringstream out;
  for (const auto& line : log) out << "\n    " << line;
  return out.str();
}

bool SameLog(const Log& actual, const Log& expected) {
  return std::equal(actual.begin(), actual.end(), expected.begin(), expected.end(),
                    [](const auto& a, const auto& e) {
                      return a.level == e.level && a.file == e.file &&
                             (a.text == e.text || (e.text == kOwnText && !a.text.empty()));
                    });
}

// Words of a kind: any bits, ordinary floats, or small numbers (indices).
std::vector<std::uint8_t> Contents(Bytes& bytes, bool computes) {
  const unsigned kind = computes ? 1 + bytes.Below(2) : bytes.OneOf({0U, 2U});
  u32 state = 1 + bytes.Byte();
  std::vector<std::uint8_t> contents;
  for (unsigned i = 0; i < 61; ++i) {
    state = state * 1664525 + 1013904223;
    u32 word = state ^ state >> 13;
    if (kind == 1) {
      const float special[] = {0.0F, -0.0F, INFINITY, -INFINITY, NAN, 1e-42F, 3e38F, -1.0F};
      const float value =
          word % 16 == 0 ? special[word >> 8 & 7] : static_cast<float>(static_cast<i32>(word) >> 20) / 64.0F;
      std::memcpy(&word, &value, sizeof word);
    } else if (kind == 2) {
      word = word >> 9 & 3;
      if (computes) {
        const auto value = static_cast<float>(word);
        std::memcpy(&word, &value, sizeof word);
      }
    }
    for (int shift = 0; shift < 32; shift += 8) contents.push_back(static_cast<std::uint8_t>(word >> shift));
  }
  return contents;
}

// The bytes agree; for computed floats, a NaN agrees with any other.
bool SameBytes(const std::vector<std::uint8_t>& actual, const std::vector<std::uint8_t>& expected,
               bool computes) {
  if (actual == expected) return true;
  if (!computes || actual.size() != expected.size()) return false;
  for (std::size_t i = 0; i + 4 <= actual.size(); i += 4) {
    float a;
    float e;
    std::memcpy(&a, actual.data() + i, 4);
    std::memcpy(&e, expected.data() + i, 4);
    if (std::memcmp(&a, &e, 4) != 0 && !(std::isnan(a) && std::isnan(e))) return false;
  }
  return true;
}

// The setup, for the message of a case that fails.
std::string Describe(const Setup& setup) {
  std::ostringstream out;
  for (const auto& [key, value] : setup.attrs) out << "\n    " << key << " = '" << value << "'";
  const auto list = [&](const char* name, const std::vector<Buf>& bufs) {
    for (const Buf& buf : bufs) {
      out << "\n    " << name << ":";
      for (unsigned dim : buf.dims) out << " " << dim;
      out << " bits " << buf.format.bitdepth << " pack " << buf.format.plane_pack << " exp " << buf.format.exp
          << " float " << buf.format.float_ << " q8a " << buf.format.q8a << " "
          << unsigned{buf.format.q8a_zero} << " " << buf.format.q8a_scale << " line " << buf.line_stride
          << " plane " << buf.plane_stride << " size " << buf.size << " strides";
      for (unsigned stride : buf.strides) out << " " << stride;
      if (buf.nchw)
        out << " accessors " << buf.At(0) << " " << buf.At(1) << " " << buf.At(2) << " " << buf.At(3);
    }
  };
  list("in", setup.in);
  list("out", setup.out);
  return out.str();
}

std::int32_t LevelOf(const std::string& name) {
  return name == "ERROR" ? vek_test::kError : name == "WARNING" ? vek_test::kWarning : vek_test::kInfo;
}

struct Pair {
  Pair(const std::string& name, std::int32_t level)
      : type(name), threshold(level), model(MakeModel(name)), layer(Plugin::Get().create_object(name)) {
    if (layer == nullptr || !model) vek_fuzz::Differ(type, "no such layer");
  }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;
  ~Pair() { Plugin::Get().destroy_object(layer); }

  template <typename Call>
  bool Call_(const Call& call, Log* log, bool* threw) {
    bool result = false;
    vek_test::LogCapture capture;
    try {
      result = call();
    } catch (const std::logic_error&) {  // a number conversion's
      *threw = true;
    }
    *log = capture.Stop();
    return result;
  }

  void Compare(const char* what, bool result, const Log& log, bool expected) {
    std::erase_if(model->log, [&](const auto& line) { return LevelOf(line.level) > threshold; });
    if (result != expected || !SameLog(log, model->log)) {
      Differ(std::string(what) + ": returned " + (result ? "true" : "false") + ", printed" + Print(log) +
             "\n  expected " + (expected ? "true" : "false") + ", printed" + Print(model->log));
    }
    // A gather from beyond the rank complains of the shape it is asked for, and succeeds.
    bool error = false;
    for (const auto& line : log) error = error || line.level == "ERROR";
    if (error == result && type != "GATHER" && threshold >= vek_test::kError)
      Differ(std::string(what) + ": an ERROR line does not match the result");
  }

  // False when the case ends here.
  bool Configure(const Setup& setup) {
    trail += "\n  Configure with" + Describe(setup);
    model->log.clear();
    bool expected = false;
    bool model_threw = false;
    try {
      expected = model->Configure(setup.attrs, setup.in, setup.out);
    } catch (const std::logic_error&) {
      model_threw = true;
    }
    const BufAttrsList in = vek_test::MakeList(setup.in);
    const BufAttrsList out = vek_test::MakeList(setup.out);
    Log log;
    bool threw = false;
    const bool result = Call_([&] { return layer->Configure(setup.attrs, in, out); }, &log, &threw);
    if (threw != model_threw) Differ("an exception that was not expected, or none that was");
    if (threw) return false;
    Compare("Configure", result, log, expected);
    return true;
  }

  void Execute(Bytes& bytes) {
    Budget budget(200000);
    model->budget = &budget;
    model->log.clear();
    const unsigned nulls = bytes.Below(32);
    // One buffer for all inputs, where all hold the same kind of elements.
    const bool same_inputs = bytes.OneIn(5) && model->Computes();

    std::vector<std::unique_ptr<Memory>> memories;
    Arrays arrays;
    arrays.in_null = nulls == 1;
    arrays.out_null = nulls == 2;
    const auto memory = [&] {
      return memories.emplace_back(std::make_unique<Memory>(Contents(bytes, model->Computes()), &budget))
          .get();
    };
    for (std::size_t i = 0; i < std::max<std::size_t>(model->InputsRead(), 1); ++i) {
      arrays.in.push_back(i > 0 && same_inputs ? arrays.in[0] : memory());
    }
    arrays.out.push_back(memory());
    if (nulls == 3) arrays.in[0] = nullptr;
    if (nulls == 4) arrays.in.back() = nullptr;
    if (nulls == 5) arrays.out[0] = nullptr;
    const bool expected = model->Execute(arrays);

    // Exact buffers behind which nothing is mapped.
    std::map<const Memory*, GuardedBuffer> buffers;
    const vek_test::Guard guard = bytes.OneIn(2) ? vek_test::Guard::kBefore : vek_test::Guard::kAfter;
    for (const auto& m : memories) buffers.emplace(m.get(), vek_test::Guarded(m->Initial(), guard));
    const auto pointers = [&](const std::vector<Memory*>& from) {
      std::vector<void*> to;
      for (const Memory* m : from) to.push_back(m == nullptr ? nullptr : buffers.at(m).data());
      return to;
    };
    std::vector<void*> in = pointers(arrays.in);
    std::vector<void*> out = pointers(arrays.out);
    Log log;
    bool threw = false;
    const bool result = Call_(
        [&] {
          return layer->Execute(arrays.in_null ? nullptr : in.data(), arrays.out_null ? nullptr : out.data());
        },
        &log, &threw);
    if (threw) Differ("an exception that was not expected");
    Compare("Execute", result, log, expected);
    for (const auto& m : memories) {
      const std::vector<std::uint8_t> actual = buffers.at(m.get()).Get();
      if (SameBytes(actual, m->bytes(), model->Computes())) continue;
      const auto at = std::mismatch(actual.begin(), actual.end(), m->bytes().begin()).first - actual.begin();
      Differ("byte " + std::to_string(at) + " of " + std::to_string(actual.size()) + " differs");
    }
  }

  [[noreturn]] void Differ(const std::string& what) const { vek_fuzz::Differ(type, what + trail); }

  std::string type;
  std::int32_t threshold;  // lines above it are not printed
  std::string trail;       // what was done so far
  std::unique_ptr<Model> model;
  zeb::PuxDnnCustomLayer* layer;
};

}  // namespace

const char* const kLayerTypes[16] = {"SOFTMAX",  "DATA_STRIDE_CONV", "RESHAPE",      "BROADCAST",
                                     "ARGMAX",   "NORMALIZE",        "MATMUL",       "PERMUTE",
                                     "SWCONCAT", "DEPTHTOSPACE",     "PAD",          "GATHER",
                                     "ELTWISE",  "SPACETOBATCH",     "SPACETODEPTH", "BATCHTOSPACE"};

void RunLayerCase(const std::string& type, const std::uint8_t* data, std::size_t size) {
  const long alive = Buf::alive;
  Bytes bytes(data, size);
  // The last byte, which decides something else only in long cases, may silence some lines, or all.
  const std::int32_t level = size > 0 && data[size - 1] < 64 ? data[size - 1] % 4 : vek_test::kInfo;
  const vek_test::ScopedThreshold threshold(level);
  try {
    Pair pair(type, level);
    for (unsigned step = 0; step < 4; ++step) {
      if (step > 0 && bytes.Empty()) break;
      if (!bytes.OneIn(8)) {
        Setup setup = MakeSetup(type, bytes);
        for (unsigned spoils = bytes.OneOf({0U, 0U, 1U, 1U, 2U}); spoils > 0; --spoils) Spoil(setup, bytes);
        if (!pair.Configure(setup)) break;
      }
      if (!bytes.OneIn(6)) pair.Execute(bytes);
    }
  } catch (const Skip&) {
    // Too large to try, or the formula leaves every buffer.
  }
  if (Buf::alive != alive) Differ(type, "descriptions leaked");
}

void RunListCase(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const vek_test::ListRef expected = vek_test::ParseListRef(text);
  std::vector<std::string> elements = {"before"};
  std::string error = "untouched";
  const bool ok = zeb_custom_ops::sw_ops_parser::ParseTensor(text, &elements, &error);
  elements.erase(elements.begin());
  if (ok != expected.ok || elements != expected.elements || error != (ok ? "untouched" : expected.error)) {
    Differ("list", "'" + text + "' is split otherwise");
  }
}

}  // namespace vek_fuzz
