// The plug-in's entry points and factory, the format record's print, and the parser of list attributes.
#include "custom_ops/vek_common.h"

#include <utility>

#include "contract/log.h"
#include "custom_ops/layer_types.h"

namespace {

template <typename Op>
zeb::PuxDnnCustomLayer* Make() {
  return new Op;
}

struct FactoryEntry {
  const char* type;
  zeb::PuxDnnCustomLayer* (*make)();
};

constexpr FactoryEntry kFactory[] = {
#define VEK_FACTORY_ENTRY(type, Op) {type, Make<zeb_custom_ops::Op>},
    VEK_LAYER_TYPES(VEK_FACTORY_ENTRY)
#undef VEK_FACTORY_ENTRY
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

// Takes a list text character by character. There are two kinds of lists, told apart by how they begin:
//
//   flat     1,2]  or  [1,2]        a value comes before a second '[': the first ']' ends the list
//   nested   [[1,2],[3,4]]          two '[' in a row: a ']' right behind the one of an inner list ends it
//
// A ']' before either ends a list of no elements. An element is complete at ',' or ']', but handed out only when the
// next one begins, so that several ',' in a row count as one; the ']' that ends the list hands out the last one.
class ListParser {
 public:
  explicit ListParser(std::vector<std::string>* elements) : elements_(elements) {}

  void Take(char c) {
    switch (state_) {
      case State::kBefore:
        return TakeBefore(c);
      case State::kInside:
        return TakeInside(c);
      case State::kDone:
        return EmitPending();
    }
  }

  bool Done() const { return state_ == State::kDone; }

 private:
  enum class State {
    kBefore,  // neither a value nor a second '[' has come
    kInside,  // elements are collected
    kDone,    // the ']' that ends the list has come
  };

  void TakeBefore(char c) {
    if (c == '[') {
      if (bracket_seen_) state_ = State::kInside;
      bracket_seen_ = true;
    } else if (c == ']') {
      state_ = State::kDone;
    } else {
      flat_ = true;
      state_ = State::kInside;
      Append(c);
    }
  }

  void TakeInside(char c) {
    if (c == ',') {
      pending_ = true;
      inner_closed_ = false;
    } else if (c == '[') {
      if (token_.empty()) pending_ = false;
      inner_closed_ = false;
    } else if (c == ']') {
      CloseBracket();
    } else {
      EmitPending();
      Append(c);
    }
  }

  void CloseBracket() {
    pending_ = true;
    if (flat_ || inner_closed_) {
      // Deliberate: the token is emitted but neither cleared nor unmarked, so that any character after the
      // final bracket emits the last element a second time.
      state_ = State::kDone;
      if (!token_.empty()) elements_->push_back(token_);
    } else {
      inner_closed_ = true;
    }
  }

  void Append(char c) {
    token_ += c;
    pending_ = false;
    inner_closed_ = false;
  }

  void EmitPending() {
    if (!pending_) return;
    elements_->push_back(std::exchange(token_, {}));
    pending_ = false;
  }

  std::vector<std::string>* elements_;
  State state_ = State::kBefore;
  std::string token_;          // the element that is collected
  bool pending_ = false;       // the token is complete and not handed out yet
  bool bracket_seen_ = false;  // a '[' has come before the list
  bool flat_ = false;          // the list is not nested
  bool inner_closed_ = false;  // the character before was the ']' of an inner list
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
