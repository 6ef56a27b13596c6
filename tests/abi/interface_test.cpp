// The binary interface between host and plug-in: numbers of virtual slots, layout of the format record. A
// host is compiled elsewhere, so nothing here relies on calling a virtual function by its name on both sides.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "support/plugin.h"

namespace vek_test {
namespace {

using zeb::PuxDnnBufAttrs;
using zeb::PuxDnnBufAttrsMemFormat;
using zeb::PuxDnnCustomLayer;

// The slot that a pointer to a virtual member function names, as the platform encodes such pointers: offset
// in the table, marked in the lowest bit of the pointer itself or, on Arm, of its adjustment.
template <typename Member>
std::size_t SlotOf(Member member) {
  std::array<std::size_t, 2> words{};
  static_assert(sizeof member == sizeof words);
  std::memcpy(words.data(), &member, sizeof words);
#if defined(__aarch64__)
  constexpr std::size_t kMarked = 1;
#else
  constexpr std::size_t kMarked = 0;
#endif
  EXPECT_EQ(words[kMarked] & 1U, 1U) << "not a virtual function";
  return words[0] / sizeof(void*);
}

TEST(Interface, SlotsOfTheBufferDescriptionAreFixed) {
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::Clone), 2U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::Reserved3), 3U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::GetSize), 4U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::GetDims), 5U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::GetNumDims), 6U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::Reserved7), 7U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::GetStrides), 8U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::GetMemFormat), 9U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::Reserved10), 10U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::Reserved11), 11U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::Reserved12), 12U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::Reserved13), 13U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::SetPlanePack), 14U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::GetBatch), 15U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::GetChannels), 16U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::GetHeight), 17U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::GetWidth), 18U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::Reserved19), 19U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::Reserved20), 20U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::Reserved21), 21U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::Reserved22), 22U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::GetLineStride), 23U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::GetPlaneStride), 24U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::SetLineStride), 25U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::SetPlaneStride), 26U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::IsStrided), 27U);
  EXPECT_EQ(SlotOf(&PuxDnnBufAttrs::IsInterleaved), 28U);
  // The two destructors take slots 0 and 1, before the first of these.
}

TEST(Interface, SlotsOfTheLayerAreFixed) {
  EXPECT_EQ(SlotOf(&PuxDnnCustomLayer::Configure), 0U);
  EXPECT_EQ(SlotOf(&PuxDnnCustomLayer::Execute), 1U);
  // The destructors follow in slots 2 and 3: see the tests that call by number.
}

TEST(Interface, FormatRecordHasItsLayout) {
  static_assert(std::is_standard_layout_v<PuxDnnBufAttrsMemFormat>);
  static_assert(std::is_trivially_copyable_v<PuxDnnBufAttrsMemFormat>);
  EXPECT_EQ(offsetof(PuxDnnBufAttrsMemFormat, bitdepth), 0U);
  EXPECT_EQ(offsetof(PuxDnnBufAttrsMemFormat, plane_pack), 4U);
  EXPECT_EQ(offsetof(PuxDnnBufAttrsMemFormat, exp), 8U);
  EXPECT_EQ(offsetof(PuxDnnBufAttrsMemFormat, signed_), 12U);
  EXPECT_EQ(offsetof(PuxDnnBufAttrsMemFormat, float_), 13U);
  EXPECT_EQ(offsetof(PuxDnnBufAttrsMemFormat, q8a), 14U);
  EXPECT_EQ(offsetof(PuxDnnBufAttrsMemFormat, q8a_zero), 15U);
  EXPECT_EQ(offsetof(PuxDnnBufAttrsMemFormat, q8a_scale), 16U);
  EXPECT_EQ(sizeof(PuxDnnBufAttrsMemFormat), 20U);
}

using SlotTable = const void* const*;

// Entry `slot` of an object's virtual table, as a function of the given type.
template <typename Function>
Function* SlotFunction(const void* object, std::size_t slot) {
  SlotTable table = nullptr;
  std::memcpy(&table, object, sizeof table);
  Function* function = nullptr;
  std::memcpy(&function, &table[slot], sizeof function);
  return function;
}

// A host's description without C++'s help: an object whose first word points to a table of 29 plain
// functions. Member functions take their object as the first argument, which is how these are called.
struct RawDescription {
  SlotTable table;
  PuxDnnBufAttrsMemFormat format;
};

int g_raw_alive = 0;  // raw descriptions that exist

const RawDescription& Raw(const void* self) { return *static_cast<const RawDescription*>(self); }

void Delete(void* self) {
  --g_raw_alive;
  delete static_cast<RawDescription*>(self);
}
std::unique_ptr<PuxDnnBufAttrs> CloneRaw(const void* self) {
  ++g_raw_alive;
  return std::unique_ptr<PuxDnnBufAttrs>(reinterpret_cast<PuxDnnBufAttrs*>(new RawDescription(Raw(self))));
}
void NeverCalled(void*) { FAIL() << "a slot was called that the layer has no use for"; }
std::uint32_t Size(const void*) { return 2 * 3 * 4; }
std::vector<unsigned> Dims(const void*) { return {1, 2, 1, 3}; }
const PuxDnnBufAttrsMemFormat& MemFormat(const void* self) { return Raw(self).format; }
unsigned Batch(const void*) { return 1; }
unsigned Channels(const void*) { return 2; }
unsigned Height(const void*) { return 1; }
unsigned Width(const void*) { return 3; }
bool No(const void*) { return false; }

SlotTable RawTable() {
  constexpr std::size_t kBefore = 2;  // a table has two words before slot 0: offset to the whole object, type
  static const auto table = [] {
    std::array<const void*, kBefore + 29> words{nullptr, &typeid(PuxDnnBufAttrs)};
    const std::span slots = std::span(words).subspan(kBefore);
    std::ranges::fill(slots, reinterpret_cast<const void*>(&NeverCalled));
    slots[1] = reinterpret_cast<const void*>(&Delete);
    slots[2] = reinterpret_cast<const void*>(&CloneRaw);
    slots[4] = reinterpret_cast<const void*>(&Size);
    slots[5] = reinterpret_cast<const void*>(&Dims);
    slots[9] = reinterpret_cast<const void*>(&MemFormat);
    slots[15] = reinterpret_cast<const void*>(&Batch);
    slots[16] = reinterpret_cast<const void*>(&Channels);
    slots[17] = reinterpret_cast<const void*>(&Height);
    slots[18] = reinterpret_cast<const void*>(&Width);
    slots[27] = reinterpret_cast<const void*>(&No);
    slots[28] = reinterpret_cast<const void*>(&No);
    return words;
  }();
  return table.data() + kBefore;
}

BufAttrsList RawList() {
  RawDescription description{RawTable(), {}};
  description.format.float_ = true;
  BufAttrsList list;
  list.push_back(CloneRaw(&description));
  return list;
}

TEST(Interface, LayerAndHostMeetByTheNumbersAlone) {
  PuxDnnCustomLayer* layer = Plugin::Get().create_object("SOFTMAX");
  ASSERT_NE(layer, nullptr);
  {
    const AttrMap attrs{{"axis", "1"}};
    const BufAttrsList in = RawList();
    const BufAttrsList out = RawList();
    const auto configure =
        SlotFunction<bool(void*, const AttrMap&, const BufAttrsList&, const BufAttrsList&)>(layer, 0);
    ASSERT_TRUE(configure(layer, attrs, in, out));
    EXPECT_EQ(g_raw_alive, 4) << "two descriptions and a clone of each";
  }
  EXPECT_EQ(g_raw_alive, 2) << "the layer keeps its clones";

  std::vector<float> data{1, 2, 3, 1, 2, 3};
  void* buffer = data.data();
  const auto execute = SlotFunction<bool(void*, void**, void**)>(layer, 1);
  EXPECT_TRUE(execute(layer, &buffer, &buffer));
  EXPECT_EQ(data, std::vector<float>(6, 0.5F));

  SlotFunction<void(void*)>(layer, 3)(layer);  // the deleting destructor
  EXPECT_EQ(g_raw_alive, 0);
}

TEST(Interface, EveryTypeRefusesToRunUnconfiguredThroughItsSlot) {
  for (const char* type : {"SOFTMAX", "DATA_STRIDE_CONV", "RESHAPE", "BROADCAST", "ARGMAX", "NORMALIZE",
                           "MATMUL", "PERMUTE", "SWCONCAT", "DEPTHTOSPACE", "PAD", "GATHER", "ELTWISE",
                           "SPACETOBATCH", "SPACETODEPTH", "BATCHTOSPACE"}) {
    SCOPED_TRACE(type);
    PuxDnnCustomLayer* layer = Plugin::Get().create_object(type);
    if (layer == nullptr) continue;
    const auto execute = SlotFunction<bool(void*, void**, void**)>(layer, 1);
    bool result = true;
    const Log log = CaptureLog([&] { result = execute(layer, nullptr, nullptr); });
    EXPECT_FALSE(result);
    ASSERT_EQ(log.size(), 1U);
    EXPECT_EQ(log[0].level, "ERROR");
    SlotFunction<void(void*)>(layer, 3)(layer);
  }
}

}  // namespace
}  // namespace vek_test
