#include "cases/layer_case.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <typeinfo>
#include <vector>

#include "cases/contents.h"
#include "cases/setups.h"
#include "custom_ops/vek_common.h"
#include "model/list.h"
#include "model/model.h"
#include "support/guarded_buffer.h"
#include "support/plugin.h"

namespace vek_cases {
namespace {

using vek_model::Arrays;
using vek_model::Budget;
using vek_model::Memory;
using vek_test::Buf;
using vek_test::BufAttrsList;
using vek_test::GuardedBuffer;
using vek_test::Log;
using vek_test::LogLine;
using vek_test::Plugin;
using Bytes = std::vector<std::uint8_t>;

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

// For computed floats, a NaN agrees with any other.
std::string Difference(const Bytes& actual, const Bytes& expected, bool computes) {
  if (actual == expected) return {};
  for (std::size_t i = 0; i + 4 <= actual.size() && computes; i += 4) {
    float a;
    float e;
    std::memcpy(&a, actual.data() + i, sizeof a);
    std::memcpy(&e, expected.data() + i, sizeof e);
    if (std::memcmp(&a, &e, sizeof a) == 0 || (std::isnan(a) && std::isnan(e))) continue;
    std::ostringstream text;
    text << "float " << i / 4 << " of " << actual.size() / 4 << std::hexfloat << " is " << a << ", expected "
         << e;
    return text.str();
  }
  if (computes) return {};
  const auto at = std::mismatch(actual.begin(), actual.end(), expected.begin()).first - actual.begin();
  return "byte " + std::to_string(at) + " of " + std::to_string(actual.size()) + " differs";
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

  void Configure(const Setup& setup) {
    trail_ += "\n  Configure with" + Describe(setup);
    const BufAttrsList in = vek_test::MakeList(setup.in);
    const BufAttrsList out = vek_test::MakeList(setup.out);
    Compare([&] { return model_->Configure(setup.attrs, setup.in, setup.out); },
            [&] { return layer_->Configure(setup.attrs, in, out); });
  }

  void Execute(Random& random) {
    trail_ += "\n  Execute";
    Budget budget{200000, 1 << 20};
    std::vector<std::unique_ptr<Memory>> memories;
    const Arrays arrays = AnyArrays(random, budget, memories);

    // The layer gets exact buffers behind which nothing is mapped, once the model knows how far they reach.
    const vek_test::Guard guard = random.OneIn(2) ? vek_test::Guard::kBefore : vek_test::Guard::kAfter;
    std::map<const Memory*, GuardedBuffer> buffers;
    const auto pointers = [&](const std::vector<Memory*>& from) {
      std::vector<void*> to;
      for (const Memory* memory : from) to.push_back(memory == nullptr ? nullptr : buffers.at(memory).data());
      return to;
    };
    const Outcome outcome =
        Compare([&] { return model_->Execute(arrays); },
                [&] {
                  for (const auto& memory : memories) {
                    buffers.emplace(memory.get(), vek_test::Guarded(memory->Initial(), guard));
                  }
                  std::vector<void*> in = pointers(arrays.in);
                  std::vector<void*> out = pointers(arrays.out);
                  return layer_->Execute(arrays.in_null ? nullptr : in.data(),
                                         arrays.out_null ? nullptr : out.data());
                });
    if (!difference_.empty()) return;
    executed_ += outcome.result ? 1 : 0;
    for (std::size_t i = 0; i < memories.size(); ++i) {
      const std::string difference =
          Difference(buffers.at(memories[i].get()).Get(), memories[i]->Get(), model_->Computes());
      if (!difference.empty()) return Differ("buffer " + std::to_string(i) + ": " + difference);
    }
  }

 private:
  // Null pointers, one buffer for several inputs, and the output in an input's, where that is defined.
  Arrays AnyArrays(Random& random, Budget& budget, std::vector<std::unique_ptr<Memory>>& memories) {
    const auto memory = [&](Memory::Words words) {
      return memories.emplace_back(std::make_unique<Memory>(std::move(words), &budget)).get();
    };
    const auto contents = [&](std::size_t input) {
      const auto limit = model_->IndicesBelow(input);
      if (limit != 0) return AnyIndices(random, limit);
      return model_->Computes() ? AnyFloats(random) : AnyBits(random);
    };
    const std::uint64_t nulls = random.Below(100);
    const bool same_inputs = random.OneIn(6);
    Arrays arrays;
    arrays.in_null = nulls == 99;
    arrays.out_null = nulls == 98;
    const std::size_t inputs = std::max<std::size_t>(model_->InputsRead(), 1);
    for (std::size_t i = 0; i < inputs; ++i) {
      const bool same = same_inputs && i > 0 && model_->IndicesBelow(i) == 0;
      arrays.in.push_back(same ? arrays.in[0] : memory(contents(i)));
    }
    const auto target = static_cast<std::size_t>(random.Below(inputs));
    const bool in_place = random.OneIn(4) && !same_inputs && model_->RunsInPlace(target);
    if (in_place) trail_ += " in the buffer of input " + std::to_string(target);
    arrays.out.push_back(in_place ? arrays.in[target] : memory(contents(inputs)));
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

  void Differ(const std::string& what) { difference_ = what + trail_; }

  std::int32_t threshold_;  // lines above it are not printed
  bool may_complain_;       // of a shape, and succeed
  std::unique_ptr<vek_model::Model> model_;
  zeb::PuxDnnCustomLayer* layer_;
  std::string trail_;  // what was done so far
  std::string difference_;
  unsigned executed_ = 0;
};

}  // namespace

CaseResult RunLayerCase(const std::string& type, Random& random) {
  CaseResult result;
  const long alive = Buf::alive;
  const std::int32_t level = random.OneIn(12) ? random.OneOf({0, 1, 2}) : vek_test::kInfo;
  const vek_test::ScopedThreshold threshold(level);
  {
    Pair pair(type, level);
    try {
      // Mostly one setup that runs, at times a few, of which some are refused.
      for (std::uint64_t step = 1 + random.Below(4); step > 0 && pair.difference().empty(); --step) {
        if (!random.OneIn(8)) pair.Configure(AnySetup(type, random));
        if (!random.OneIn(8) && pair.difference().empty()) pair.Execute(random);
      }
    } catch (const vek_model::Skip&) {
      result.skipped = true;
    }
    result.difference = pair.difference();
    result.executed = pair.executed();
  }
  if (Buf::alive != alive) result.difference += "\ndescriptions leaked";
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
