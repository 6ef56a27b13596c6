#include "cases/layer_case.h"

#include <algorithm>
#include <list>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <typeinfo>
#include <variant>
#include <vector>

#include "cases/contents.h"
#include "cases/setups.h"
#include "custom_ops/vek_common.h"
#include "model/list.h"
#include "model/model.h"
#include "support/exact_buffers.h"
#include "support/plugin.h"

namespace vek_cases {
namespace {

using vek_model::Arrays;
using vek_model::Budget;
using vek_model::Memory;
using vek_test::Buf;
using vek_test::BufAttrsList;
using vek_test::ExactBuffers;
using vek_test::Guard;
using vek_test::Log;
using vek_test::LogLine;
using vek_test::Plugin;

// --- What one call did.

struct Outcome {
  bool result = false;
  std::string threw;  // the type of the exception
  Log log;
};

template <typename Call>
void Run(Outcome& outcome, const Call& call) {
  try {
    outcome.result = call();
  } catch (const std::logic_error& error) {  // a number conversion's
    outcome.threw = typeid(error).name();
  }
}

bool IsSame(const LogLine& actual, const LogLine& expected) {
  return actual.level == expected.level && actual.file == expected.file &&
         (actual.text == expected.text || (expected.text == vek_model::kOwnText && !actual.text.empty()));
}

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  out << (outcome.threw.empty() ? outcome.result ? "returned true" : "returned false"
                                : "threw " + outcome.threw);
  for (const LogLine& line : outcome.log) out << "\n    " << line;
  return out;
}

// The first difference, empty for none.
std::string Difference(const Outcome& actual, const Outcome& expected) {
  const bool same_log =
      std::equal(actual.log.begin(), actual.log.end(), expected.log.begin(), expected.log.end(), IsSame);
  if (actual.result == expected.result && actual.threw == expected.threw && same_log) return {};
  std::ostringstream text;
  text << actual << "\n  expected: " << expected;
  return text.str();
}

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
      if (buf.strided) out << " strided " << *buf.strided;
      if (buf.interleaved) out << " interleaved " << *buf.interleaved;
      if (buf.nchw)
        out << " accessors " << buf.At(0) << " " << buf.At(1) << " " << buf.At(2) << " " << buf.At(3);
    }
  };
  list("in", setup.in);
  list("out", setup.out);
  return out.str();
}

std::int32_t LevelOf(const LogLine& line) {
  return line.level == "ERROR"     ? vek_test::kError
         : line.level == "WARNING" ? vek_test::kWarning
                                   : vek_test::kInfo;
}

// --- A layer and its model, side by side.

class Pair {
 public:
  Pair(const std::string& type, std::int32_t threshold)
      : threshold_(threshold),
        may_complain_(type == "GATHER"),
        model_(vek_model::MakeModel(type)),
        layer_(Plugin::Get().create_object(type)) {}
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;
  ~Pair() { Plugin::Get().destroy_object(layer_); }

  // What differs, with all that was done before; empty for nothing.
  const std::string& difference() const { return difference_; }
  unsigned executed() const { return executed_; }
  const Log& log() const { return log_; }

  void Configure(const Setup& setup) {
    trail_.emplace_back(setup);
    const BufAttrsList in = vek_test::MakeList(setup.in);
    const BufAttrsList out = vek_test::MakeList(setup.out);
    Compare([&] { return model_->Configure(setup.attrs, setup.in, setup.out); },
            [&] { return layer_->Configure(setup.attrs, in, out); });
  }

  // Now and then with null pointers, one buffer for several inputs, or the output in an input's where that is defined.
  void ExecuteAnyhow(Random& random) {
    Memories memories;
    const Arrays arrays = AnyArrays(random, memories);
    Execute(arrays, vek_test::AnyGuard(random));
  }
  // With a buffer for each input and the output.
  void ExecutePlainly(Random& random, Guard guard) {
    Memories memories;
    Arrays arrays;
    for (std::size_t i = 0; i < InputsGiven(); ++i) arrays.in.push_back(memories.Add(Contents(random, i)));
    arrays.out.push_back(memories.Add(Contents(random, InputsGiven())));
    Execute(arrays, guard);
  }

 private:
  // The memories of one call, and what it may take.
  struct Memories {
    Memory* Add(Memory::Words words) { return &list.emplace_back(std::move(words), &budget); }
    Budget budget{200000, 1 << 20};
    std::list<Memory> list;
  };

  // The layer gets exact buffers, once the model knows how far they reach.
  void Execute(const Arrays& arrays, Guard guard) {
    const auto target = std::find(arrays.in.begin(), arrays.in.end(), arrays.out[0]);
    const bool in_place = arrays.out[0] != nullptr && target != arrays.in.end();
    trail_.emplace_back(in_place ? target - arrays.in.begin() : -1);
    ExactBuffers buffers(guard);
    const auto pointers = [&](const std::vector<Memory*>& memories) {
      std::vector<void*> data;
      for (const Memory* memory : memories) data.push_back(memory ? buffers.Of(*memory) : nullptr);
      return data;
    };
    const Outcome outcome = Compare([&] { return model_->Execute(arrays); },
                                    [&] {
                                      std::vector<void*> in = pointers(arrays.in);
                                      std::vector<void*> out = pointers(arrays.out);
                                      return layer_->Execute(arrays.in_null ? nullptr : in.data(),
                                                             arrays.out_null ? nullptr : out.data());
                                    });
    if (!difference_.empty()) return;
    executed_ += outcome.result ? 1 : 0;
    const std::string difference = buffers.Difference(model_->Computes());
    if (!difference.empty()) Differ(difference);
  }

  std::size_t InputsGiven() const { return std::max<std::size_t>(model_->InputsRead(), 1); }
  Memory::Words Contents(Random& random, std::size_t input) const {
    const auto limit = model_->IndicesBelow(input);
    if (limit != 0) return AnyIndices(random, limit);
    return model_->Computes() ? AnyFloats(random) : AnyBits(random);
  }
  Arrays AnyArrays(Random& random, Memories& memories) const {
    const std::uint64_t nulls = random.Below(100);
    const bool same_inputs = random.OneIn(6);
    Arrays arrays;
    arrays.in_null = nulls == 99;
    arrays.out_null = nulls == 98;
    for (std::size_t i = 0; i < InputsGiven(); ++i) {
      const bool same = same_inputs && i > 0 && model_->IndicesBelow(i) == 0;
      arrays.in.push_back(same ? arrays.in[0] : memories.Add(Contents(random, i)));
    }
    const auto target = static_cast<std::size_t>(random.Below(InputsGiven()));
    const bool in_place = random.OneIn(4) && !same_inputs && model_->RunsInPlace(target);
    arrays.out.push_back(in_place ? arrays.in[target] : memories.Add(Contents(random, InputsGiven())));
    if (nulls == 97) arrays.in[0] = nullptr;
    if (nulls == 96) arrays.in.back() = nullptr;
    if (nulls == 95) arrays.out[0] = nullptr;
    return arrays;
  }

  template <typename ModelCall, typename LayerCall>
  Outcome Compare(const ModelCall& model_call, const LayerCall& layer_call) {
    Outcome expected;
    model_->log.clear();
    Run(expected, model_call);
    expected.log = model_->log;
    std::erase_if(expected.log, [&](const LogLine& line) { return LevelOf(line) > threshold_; });

    Outcome actual;
    {
      vek_test::LogCapture capture;
      Run(actual, layer_call);
      actual.log = capture.Stop();
    }
    log_ = actual.log;
    const std::string difference = Difference(actual, expected);
    const bool complains = std::any_of(actual.log.begin(), actual.log.end(),
                                       [](const LogLine& line) { return line.level == "ERROR"; });
    if (!difference.empty()) {
      Differ(difference);
    } else if (actual.threw.empty() && complains == actual.result && !may_complain_ &&
               threshold_ >= vek_test::kError) {
      Differ("an ERROR line does not match the result");
    }
    return actual;
  }

  void Differ(const std::string& what) {
    difference_ = what;
    for (const Done& done : trail_) {
      if (const Setup* setup = std::get_if<Setup>(&done)) {
        difference_ += "\n  Configure with" + Describe(*setup);
      } else {
        const auto input = std::get<std::ptrdiff_t>(done);
        difference_ += "\n  Execute";
        if (input >= 0) difference_ += " in the buffer of input " + std::to_string(input);
      }
    }
  }

  // Configure with a setup, or Execute in the buffer of an input, -1 for one of its own.
  using Done = std::variant<Setup, std::ptrdiff_t>;

  std::int32_t threshold_;  // lines above it are not printed
  bool may_complain_;       // of a shape, and succeed
  std::unique_ptr<vek_model::Model> model_;
  zeb::PuxDnnCustomLayer* layer_;
  std::vector<Done> trail_;  // so far
  std::string difference_;
  unsigned executed_ = 0;
  Log log_;  // of the last call
};

// Runs `calls(pair)` on a new pair.
template <typename Calls>
CaseResult RunPair(const std::string& type, std::int32_t level, const Calls& calls) {
  CaseResult result;
  const long alive = Buf::alive;
  const vek_test::ScopedThreshold threshold(level);
  {
    Pair pair(type, level);
    try {
      calls(pair);
    } catch (const vek_model::Skip&) {
      result.skipped = true;
    }
    result.difference = pair.difference();
    result.executed = pair.executed();
    result.log = pair.log();
  }
  if (Buf::alive != alive) result.difference += "\ndescriptions leaked";
  return result;
}

}  // namespace

CaseResult RunLayerCase(const std::string& type, Random& random) {
  const std::int32_t level = random.OneIn(12) ? random.OneOf({0, 1, 2}) : vek_test::kInfo;
  return RunPair(type, level, [&](Pair& pair) {
    // Mostly one setup that runs, at times a few, of which some are refused.
    for (std::uint64_t step = 1 + random.Below(4); step > 0 && pair.difference().empty(); --step) {
      if (!random.OneIn(8)) pair.Configure(AnySetup(type, random));
      if (!random.OneIn(8) && pair.difference().empty()) pair.ExecuteAnyhow(random);
    }
  });
}

CaseResult RunSetups(const std::string& type, const std::vector<Setup>& setups, Random& random) {
  CaseResult result = RunPair(type, vek_test::kInfo, [&](Pair& pair) {
    for (const Setup& setup : setups) {
      pair.Configure(setup);
      for (const Guard guard : {Guard::kBefore, Guard::kAfter}) {
        if (pair.difference().empty()) pair.ExecutePlainly(random, guard);
      }
      if (!pair.difference().empty()) break;
    }
  });
  if (result.skipped) result.difference += "too large, or beyond what the contract says";
  return result;
}

std::string RunListCase(const std::string& text) {
  const vek_model::List expected = vek_model::ParseList(text);
  std::vector<std::string> elements = {"before"};
  std::string error = "untouched";
  const bool ok = zeb_custom_ops::sw_ops_parser::ParseTensor(text, &elements, &error);
  elements.erase(elements.begin());
  const bool same =
      ok == expected.ok && elements == expected.elements && error == (ok ? "untouched" : expected.error);
  return same ? std::string() : "'" + text + "' is split otherwise";
}

}  // namespace vek_cases
