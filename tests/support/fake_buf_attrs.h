// A host's buffer description for the tests: every answer can be set, every call and every clone is counted.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "zeb/pux_dnn_buf_attrs.h"
#include "zeb/pux_dnn_custom_layer.h"

namespace vek_test {

using Format = zeb::PuxDnnBufAttrsMemFormat;
using AttrMap = zeb::PuxDnnCustomLayer::AttrMap;
using BufAttrsList = zeb::PuxDnnCustomLayer::BufAttrsList;

// Slots of the interface, the indices of `Buf::calls`.
enum Slot {
  kClone = 2,
  kGetSize = 4,
  kGetDims = 5,
  kGetNumDims = 6,
  kGetStrides = 8,
  kGetMemFormat = 9,
  kSetPlanePack = 14,
  kGetBatch = 15,
  kGetChannels = 16,
  kGetHeight = 17,
  kGetWidth = 18,
  kGetLineStride = 23,
  kGetPlaneStride = 24,
  kSetLineStride = 25,
  kSetPlaneStride = 26,
  kIsStrided = 27,
  kIsInterleaved = 28,
  kSlots = 29
};

// A buffer description as a value: set the fields, hand copies to the layer.
struct Buf final : zeb::PuxDnnBufAttrs {
  std::vector<unsigned> dims;
  Format format;
  unsigned line_stride = 0;   // bytes
  unsigned plane_stride = 0;  // bytes
  unsigned size = 0;          // bytes
  std::vector<unsigned> strides;
  std::optional<std::array<unsigned, 4>> nchw;  // what the four accessors answer; default: the dims, see At
  std::optional<bool> strided;                  // default: from the strides
  std::optional<bool> interleaved;              // default: plane_pack > 1

  inline static std::atomic<long> alive{0};  // descriptions that exist in this process
  inline static std::array<std::atomic<long>, kSlots>
      calls{};  // calls per slot, of all descriptions together

  static void ResetCalls() {
    for (auto& count : calls) count = 0;
  }

  Buf() { ++alive; }
  Buf(const Buf& other)
      : PuxDnnBufAttrs(other),
        dims(other.dims),
        format(other.format),
        line_stride(other.line_stride),
        plane_stride(other.plane_stride),
        size(other.size),
        strides(other.strides),
        nchw(other.nchw),
        strided(other.strided),
        interleaved(other.interleaved) {
    ++alive;
  }
  Buf& operator=(const Buf&) = default;
  ~Buf() override { --alive; }

  // --- Making descriptions.

  // The packed layout of `dims` in `format`: strides and size without any padding.
  static Buf Packed(std::vector<unsigned> dims, const Format& format) {
    Buf buf;
    buf.dims = std::move(dims);
    buf.format = format;
    return buf.Pad(0, 0);
  }
  static Buf Float(std::vector<unsigned> dims) { return Packed(std::move(dims), Planar(32, true)); }
  static Buf Int(int bitdepth, std::vector<unsigned> dims) {
    return Packed(std::move(dims), Planar(bitdepth, false));
  }
  static Format Planar(int bitdepth, bool is_float, int plane_pack = 1) {
    Format format;
    format.bitdepth = bitdepth;
    format.plane_pack = plane_pack;
    format.float_ = is_float;
    return format;
  }

  // Lays rows out with `row_pad` bytes and planes with `plane_pad` bytes beyond packed, and sizes the buffer.
  Buf& Pad(unsigned row_pad, unsigned plane_pad) {
    line_stride = At(3) * PlanePack() * ElementBytes() + row_pad;
    plane_stride = At(2) * line_stride + plane_pad;
    strides.assign(dims.size(), 0);
    unsigned stride = ElementBytes();
    for (std::size_t i = dims.size(); i-- > 0; stride *= dims[i]) strides[i] = stride;
    if (dims.size() == 4) {
      size = At(0) * ((At(1) + PlanePack() - 1) / PlanePack()) * plane_stride;
    } else {
      size = static_cast<unsigned>((static_cast<unsigned>(format.bitdepth) * Count() + 7) / 8);
    }
    return *this;
  }

  unsigned PlanePack() const { return format.plane_pack > 0 ? static_cast<unsigned>(format.plane_pack) : 1; }
  unsigned ElementBytes() const {
    return format.bitdepth >= 8 ? static_cast<unsigned>(format.bitdepth) / 8 : 1;
  }
  std::uint64_t Count() const {
    std::uint64_t count = 1;
    for (unsigned dim : dims) count *= dim;
    return count;
  }
  // Answer of accessor i (N, C, H, W). Fewer than four dims are aligned to the right behind ones.
  unsigned At(std::size_t i) const {
    if (nchw) return (*nchw)[i];
    if (dims.size() >= 4) return dims[i];
    const std::size_t lead = 4 - dims.size();
    return i < lead ? 1U : dims[i - lead];
  }

  // --- The interface.

  std::unique_ptr<PuxDnnBufAttrs> Clone() const override {
    return Counted(kClone, std::make_unique<Buf>(*this));
  }
  std::uint32_t GetSize() const override { return Counted(kGetSize, size); }
  std::vector<unsigned> GetDims() const override { return Counted(kGetDims, dims); }
  unsigned GetNumDims() const override { return Counted(kGetNumDims, static_cast<unsigned>(dims.size())); }
  std::vector<unsigned> GetStrides() const override { return Counted(kGetStrides, strides); }
  const Format& GetMemFormat() const override {
    ++calls[kGetMemFormat];
    return format;
  }
  void SetPlanePack(std::int32_t channels) override {
    ++calls[kSetPlanePack];
    format.plane_pack = channels;
  }
  unsigned GetBatch() const override { return Counted(kGetBatch, At(0)); }
  unsigned GetChannels() const override { return Counted(kGetChannels, At(1)); }
  unsigned GetHeight() const override { return Counted(kGetHeight, At(2)); }
  unsigned GetWidth() const override { return Counted(kGetWidth, At(3)); }
  unsigned GetLineStride() const override { return Counted(kGetLineStride, line_stride); }
  unsigned GetPlaneStride() const override { return Counted(kGetPlaneStride, plane_stride); }
  void SetLineStride(unsigned bytes) override {
    ++calls[kSetLineStride];
    line_stride = bytes;
  }
  void SetPlaneStride(unsigned bytes) override {
    ++calls[kSetPlaneStride];
    plane_stride = bytes;
  }
  bool IsStrided() const override {
    const bool padded =
        line_stride > At(3) * PlanePack() * ElementBytes() || plane_stride > line_stride * At(2);
    return Counted(kIsStrided, strided.value_or(padded));
  }
  bool IsInterleaved() const override {
    return Counted(kIsInterleaved, interleaved.value_or(format.plane_pack > 1));
  }

  void Reserved3() override { Never(3); }
  void Reserved7() override { Never(7); }
  void Reserved10() override { Never(10); }
  void Reserved11() override { Never(11); }
  void Reserved12() override { Never(12); }
  void Reserved13() override { Never(13); }
  void Reserved19() override { Never(19); }
  void Reserved20() override { Never(20); }
  void Reserved21() override { Never(21); }
  void Reserved22() override { Never(22); }

 private:
  template <typename T>
  static T Counted(Slot slot, T value) {
    ++calls[slot];
    return value;
  }
  static void Never(int slot) { ADD_FAILURE() << "the library called reserved slot " << slot; }
};

// What Configure is given.
struct Setup {
  AttrMap attrs;
  std::vector<Buf> in;
  std::vector<Buf> out;
};

// The list of descriptions that Configure takes.
inline BufAttrsList MakeList(const std::vector<Buf>& bufs) {
  BufAttrsList list;
  for (const Buf& buf : bufs) list.push_back(std::make_unique<Buf>(buf));
  return list;
}

// Fails the test in whose scope it lives when descriptions made inside that scope are still alive at its end.
class ExpectNoLeakedClones {
 public:
  ExpectNoLeakedClones() : before_(Buf::alive) {}
  ExpectNoLeakedClones(const ExpectNoLeakedClones&) = delete;
  ExpectNoLeakedClones& operator=(const ExpectNoLeakedClones&) = delete;
  ~ExpectNoLeakedClones() { EXPECT_EQ(Buf::alive, before_) << "descriptions leaked"; }

 private:
  long before_;
};

}  // namespace vek_test
