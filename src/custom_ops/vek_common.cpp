// The plug-in's entry points and factory, the format record's print, and the parser of list attributes.
#include "custom_ops/vek_common.h"

#include <utility>

#include "contract/log.h"
#include "custom_ops/vek_argmax.h"
#include "custom_ops/vek_batchtospace.h"
#include "custom_ops/vek_broadcast.h"
#include "custom_ops/vek_concat.h"
#include "custom_ops/vek_datastrideconv.h"
#include "custom_ops/vek_depthtospace.h"
#include "custom_ops/vek_ewo.h"
#include "custom_ops/vek_gather.h"
#include "custom_ops/vek_l2norm.h"
#include "custom_ops/vek_matmul.h"
#include "custom_ops/vek_pad.h"
#include "custom_ops/vek_permute.h"
#include "custom_ops/vek_reshape.h"
#include "custom_ops/vek_softmax.h"
#include "custom_ops/vek_spacetobatch.h"
#include "custom_ops/vek_spacetodepth.h"

namespace {

template <typename Op>
zeb::PuxDnnCustomLayer* Make() {
  return new Op;
}

struct FactoryEntry {
  const char* type;
  zeb::PuxDnnCustomLayer* (*make)();
};

using namespace zeb_custom_ops;  // NOLINT(google-build-using-namespace): the table reads better bare

constexpr FactoryEntry kFactory[] = {
    {"SOFTMAX", Make<VekSoftmax>},
    {"DATA_STRIDE_CONV", Make<VekDataStrideConv>},
    {"RESHAPE", Make<VekReshape>},
    {"BROADCAST", Make<VekBroadcast>},
    {"ARGMAX", Make<VekArgmax>},
    {"NORMALIZE", Make<VekL2Norm>},
    {"MATMUL", Make<VekMatmul>},
    {"PERMUTE", Make<VekPermute>},
    {"SWCONCAT", Make<VekConcat>},
    {"DEPTHTOSPACE", Make<VekDepthToSpace>},
    {"PAD", Make<VekPad>},
    {"GATHER", Make<VekGather>},
    {"ELTWISE", Make<VekEwo>},
    {"SPACETOBATCH", Make<VekSpaceToBatch>},
    {"SPACETODEPTH", Make<VekSpaceToDepth>},
    {"BATCHTOSPACE", Make<VekBatchToSpace>},
};

}  // namespace

zeb::PuxDnnCustomLayer* create_object(const std::string& type) {
  for (const FactoryEntry& entry : kFactory) {
    if (type == entry.type) return entry.make();
  }
  return nullptr;
}

void destroy_object(zeb::PuxDnnCustomLayer* layer) { delete layer; }

namespace zeb_custom_ops {

void PrintMemFmt(zeb::PuxDnnBufAttrsMemFormat format) {
  VEK_LOG_INFO("bitdepth=%d, plane_pack=%d, exp=%d, signed=%d, float=%d, q8a=%d, q8a_zero=%d, q8a_scale=%f",
               format.bitdepth, format.plane_pack, format.exp, format.signed_, format.float_, format.q8a,
               format.q8a_zero, static_cast<double>(format.q8a_scale));
}

namespace sw_ops_parser {
namespace {

// The state machine. A list is Before its first bracket pair or value, then Inside, then Done at its last
// bracket.
class ListParser {
 public:
  explicit ListParser(std::vector<std::string>* elements) : elements_(elements) {}

  void Take(char c) {
    switch (phase_) {
      case Phase::kBefore:
        return TakeBefore(c);
      case Phase::kInside:
        return TakeInside(c);
      case Phase::kDone:
        return EmitPending();
    }
  }

  bool Done() const { return phase_ == Phase::kDone; }

 private:
  enum class Phase { kBefore, kInside, kDone };

  // The first '[' only arms; a second one opens the outer list of a nested value.
  void TakeBefore(char c) {
    if (c == '[') {
      if (armed_) phase_ = Phase::kInside;
      armed_ = true;
    } else if (c == ']') {
      phase_ = Phase::kDone;
    } else {
      flat_ = true;
      phase_ = Phase::kInside;
      Append(c);
    }
  }

  void TakeInside(char c) {
    if (c == ',') {
      pending_ = true;
      closed_ = false;
    } else if (c == '[') {
      if (token_.empty()) pending_ = false;
      closed_ = false;
    } else if (c == ']') {
      CloseBracket();
    } else {
      EmitPending();
      Append(c);
    }
  }

  void CloseBracket() {
    pending_ = true;
    if (flat_ || closed_) {
      // Deliberate: the token is emitted but neither cleared nor unmarked, so that any character after the
      // final bracket emits the last element a second time.
      phase_ = Phase::kDone;
      if (!token_.empty()) elements_->push_back(token_);
    } else {
      flat_ = false;
    }
    closed_ = true;
  }

  void Append(char c) {
    token_ += c;
    pending_ = false;
    closed_ = false;
  }

  void EmitPending() {
    if (!pending_) return;
    elements_->push_back(std::exchange(token_, {}));
    pending_ = false;
  }

  std::vector<std::string>* elements_;
  Phase phase_ = Phase::kBefore;
  std::string token_;     // the element being collected
  bool armed_ = false;    // a '[' has been seen before the list
  bool pending_ = false;  // the token is complete; it is emitted before the next character is appended
  bool flat_ = false;     // a value came before a second '[', so the list is not nested
  bool closed_ = false;   // the last significant character closed an inner list
};

}  // namespace

bool ParseTensor(std::string text, std::vector<std::string>* elements, std::string* error) {
  if (text.size() < 3) {
    *error = "Wrongly formated parameter string (too short)";
    return false;
  }
  ListParser parser(elements);
  for (char c : text) parser.Take(c);
  if (parser.Done()) return true;
  *error = "Wrongly formated parameter string for software operation";
  return false;
}

}  // namespace sw_ops_parser
}  // namespace zeb_custom_ops
