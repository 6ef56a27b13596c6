// An independent model of the layers: what each Configure and Execute returns, prints and writes, by the plain
// formulas, over memory that notes how far it was touched. It shares no code with the library.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/fake_buf_attrs.h"
#include "support/log_capture.h"

namespace vek_model {

using vek_test::AttrMap;
using vek_test::Buf;
using vek_test::Error;
using vek_test::Format;
using vek_test::Info;
using vek_test::Log;
using vek_test::Warning;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using i32 = std::int32_t;
using i64 = std::int64_t;

// Thrown when a case is too large to be tried, or when the formula leaves what memory there could be.
struct Skip {};

// How many steps one case may still take.
class Budget {
 public:
  explicit Budget(u64 steps) : left_(steps) {}
  void Take(u64 steps = 1) {
    if (steps > left_) throw Skip{};
    left_ -= steps;
  }

 private:
  u64 left_;
};

// The bytes behind one data pointer. They begin as `initial`, which repeats; `touched` is how many of them, from the
// first, an exact buffer must have.
class Memory {
 public:
  Memory(std::vector<std::uint8_t> initial, Budget* budget) : initial_(std::move(initial)), budget_(budget) {}

  template <typename T>
  T Load(u64 index) {
    Touch(index * sizeof(T), sizeof(T));
    T value;
    std::memcpy(&value, bytes_.data() + index * sizeof(T), sizeof(T));
    return value;
  }
  template <typename T>
  void Store(u64 index, T value) {
    Touch(index * sizeof(T), sizeof(T));
    std::memcpy(bytes_.data() + index * sizeof(T), &value, sizeof(T));
  }
  void Zero(u64 offset, u64 count) {
    Touch(offset, count);
    if (count != 0) std::fill_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), count, std::uint8_t{0});
  }
  // Copies bytes from another memory.
  void CopyFrom(u64 offset, Memory& from, u64 from_offset, u64 count) {
    Touch(offset, count);
    from.Touch(from_offset, count);
    if (count != 0) std::memmove(bytes_.data() + offset, from.bytes_.data() + from_offset, count);
  }

  const std::vector<std::uint8_t>& bytes() const { return bytes_; }
  // What a buffer of as many bytes holds before the layer runs.
  std::vector<std::uint8_t> Initial() const {
    std::vector<std::uint8_t> bytes(bytes_.size());
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = initial_[i % initial_.size()];
    return bytes;
  }

 private:
  void Touch(u64 offset, u64 count) {
    budget_->Take(1 + count / 8);
    if (count == 0) return;
    constexpr u64 kMost = 1 << 20;
    if (offset > kMost || count > kMost || offset + count > kMost) throw Skip{};
    for (u64 i = bytes_.size(); i < offset + count; ++i) bytes_.push_back(initial_[i % initial_.size()]);
  }

  std::vector<std::uint8_t> initial_;
  std::vector<std::uint8_t> bytes_;
  Budget* budget_;
};

// The arrays that Execute is given. A null entry stands for a null pointer.
struct Arrays {
  bool in_null = false;
  bool out_null = false;
  std::vector<Memory*> in;
  std::vector<Memory*> out;
};

// A message whose text is the layer's own business.
inline const char* const kOwnText = "*";

class Model {
 public:
  virtual ~Model() = default;
  virtual bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) = 0;
  virtual bool Execute(const Arrays& arrays) = 0;
  // How many input pointers Execute reads.
  virtual std::size_t InputsRead() const { return 1; }
  // Whether results are floats that arithmetic makes, whose NaNs have any bits.
  virtual bool Computes() const { return false; }

  Log log;
  Budget* budget = nullptr;

 protected:
  explicit Model(std::string file) : file_(std::move(file)) {}

  bool Fail(const char* text, ...) __attribute__((format(printf, 2, 3))) {
    std::va_list arguments;
    va_start(arguments, text);
    char line[1024];
    std::vsnprintf(line, sizeof line, text, arguments);
    va_end(arguments);
    log.push_back(Error(file_, line));
    return false;
  }
  bool FailOwn() {
    log.push_back(Error(file_, kOwnText));
    return false;
  }
  void PrintFormat(const Format& f) {
    char line[256];
    std::snprintf(
        line, sizeof line,
        "bitdepth=%d, plane_pack=%d, exp=%d, signed=%d, float=%d, q8a=%d, q8a_zero=%d, q8a_scale=%f",
        f.bitdepth, f.plane_pack, f.exp, f.signed_, f.float_, f.q8a, f.q8a_zero,
        static_cast<double>(f.q8a_scale));
    log.push_back(Info("vek_common.cpp", line));
  }

  std::string file_;
  bool configured_ = false;
};

// --- What most models ask of attributes and descriptions.

inline const std::string* Find(const AttrMap& attrs, const char* key) {
  const auto found = attrs.find(key);
  return found == attrs.end() ? nullptr : &found->second;
}
inline i64 Long(const std::string& text) { return std::strtol(text.c_str(), nullptr, 10); }
inline u64 Product(const std::vector<unsigned>& dims) {
  u64 product = 1;
  for (unsigned dim : dims) product *= dim;
  return product;
}
inline u32 Product32(const std::vector<unsigned>& dims) { return static_cast<u32>(Product(dims)); }
inline u64 BytesUp(const Buf& buf) {
  const u64 count = Product(buf.dims);
  return buf.format.float_ ? count * 4 : (static_cast<u64>(i64{buf.format.bitdepth}) * count + 7) / 8;
}
inline bool PlanarFloat(const Format& f) { return f.bitdepth == 32 && f.plane_pack == 1 && f.float_; }
inline int D(u64 value) { return static_cast<int>(value); }

struct Nchw {
  explicit Nchw(const Buf& buf) : n(buf.At(0)), c(buf.At(1)), h(buf.At(2)), w(buf.At(3)) {}
  u32 n, c, h, w;
};

// The model of a layer type; null for an unknown name.
std::unique_ptr<Model> MakeNumericModel(const std::string& type);
std::unique_ptr<Model> MakeMovementModel(const std::string& type);
inline std::unique_ptr<Model> MakeModel(const std::string& type) {
  std::unique_ptr<Model> model = MakeNumericModel(type);
  return model ? std::move(model) : MakeMovementModel(type);
}

}  // namespace vek_model
