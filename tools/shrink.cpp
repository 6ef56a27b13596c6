#include "shrink.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>

#include "element_values.h"
#include "host/layer_rules.h"
#include "host/layout.h"
#include "layer_catalog.h"
#include "operand.h"
#include "recording_writer.h"
#include "tensor.h"

namespace vekrun {
namespace {

// Trials at most; each is a few processes.
constexpr int kMostTrials = 3000;

// A call that is being reduced.
struct Subject {
  std::string type;
  std::vector<AttributeList> attributes;  // of each Configure
  std::vector<vek_host::BufAttrs> inputs;
  std::vector<vek_host::BufAttrs> outputs;
  std::vector<std::vector<std::byte>> values;  // of each input, in dense order
};

RecordedLayer Recorded(const Subject& subject) {
  std::vector<std::vector<std::byte>> bytes;
  for (std::size_t i = 0; i < subject.inputs.size(); ++i) {
    bytes.emplace_back(subject.inputs[i].Bytes());
    vek_host::Pack(subject.inputs[i], subject.values[i].data(), bytes.back().data());
  }
  return AsRecorded(subject.type, subject.attributes, subject.inputs, subject.outputs, std::move(bytes));
}

std::optional<Subject> SubjectOf(const RecordedLayer& layer, const RecordedExecute& execute,
                                 const FindBytes& find) {
  const RecordedConfigure* const configure = layer.ConfigureOf(execute);
  if (configure == nullptr || !execute.inputs || execute.inputs->size() != configure->inputs.size())
    return std::nullopt;
  Subject subject{layer.type, {}, {}, {}, {}};
  for (std::size_t i = 0; i < execute.configures; ++i)
    subject.attributes.push_back(layer.configures[i].attributes);
  for (std::size_t i = 0; i < configure->inputs.size(); ++i) {
    const auto layout = configure->inputs[i] == nullptr ? std::nullopt : LayoutOf(*configure->inputs[i]);
    const auto bytes = find((*execute.inputs)[i]);
    if (!layout || !bytes || bytes->size < layout->Bytes()) return std::nullopt;
    subject.inputs.push_back(*layout);
    subject.values.emplace_back(ElementCount(layout->GetDims()) * layout->ElementBytes());
    vek_host::Unpack(*layout, bytes->data.get(), subject.values.back().data());
  }
  for (const auto& attrs : configure->outputs) {
    const auto layout = attrs == nullptr ? std::nullopt : LayoutOf(*attrs);
    if (!layout) return std::nullopt;
    subject.outputs.push_back(*layout);
  }
  return subject;
}

// The same padding around another shape.
vek_host::BufAttrs Reshaped(const vek_host::BufAttrs& attrs, const Dims& dims) {
  vek_host::BufAttrs reshaped(dims, attrs.GetMemFormat());
  const auto row_padding = static_cast<unsigned int>(attrs.GetLineStride() - attrs.RowBytes());
  const unsigned int plane_padding = attrs.GetPlaneStride() - attrs.GetHeight() * attrs.GetLineStride();
  reshaped.SetLineStride(static_cast<unsigned int>(reshaped.RowBytes()) + row_padding);
  reshaped.SetPlaneStride(reshaped.GetHeight() * reshaped.GetLineStride() + plane_padding);
  return reshaped;
}

// The first or the last elements along each axis.
std::vector<std::byte> Cropped(const std::vector<std::byte>& dense, const Dims& from, const Dims& to,
                               bool last, std::size_t element_bytes) {
  std::vector<std::byte> cropped(ElementCount(to) * element_bytes);
  Dims index(to.size(), 0);
  for (std::size_t i = 0; i < ElementCount(to); ++i) {
    std::size_t at = 0;
    for (std::size_t d = 0; d < to.size(); ++d) at = at * from[d] + index[d] + (last ? from[d] - to[d] : 0);
    std::memcpy(cropped.data() + i * element_bytes, dense.data() + at * element_bytes, element_bytes);
    for (std::size_t d = to.size(); d-- > 0 && ++index[d] == to[d];) index[d] = 0;
  }
  return cropped;
}

// The output's shape that the layer type gives, where it is known.
std::optional<Dims> OutputShape(const Subject& subject) {
  const vek_host::LayerRules* const layer = vek_host::FindLayerRules(subject.type);
  if (layer == nullptr) return std::nullopt;
  AttrMap attrs;
  for (const AttributeList& list : subject.attributes) {
    for (const auto& [key, value] : list) attrs[key] = value;
  }
  std::vector<const zeb::PuxDnnBufAttrs*> inputs;
  for (const vek_host::BufAttrs& input : subject.inputs) inputs.push_back(&input);
  return layer->output_shape(attrs, inputs);
}

class Shrinker {
 public:
  Shrinker(const vek_host::Plugin& plugin, const vek_host::Plugin* reference, Subject subject)
      : plugin_(plugin),
        reference_(reference),
        subject_(std::move(subject)),
        output_follows_(!subject_.outputs.empty() && OutputShape(subject_) == subject_.outputs[0].GetDims()) {
  }

  bool Run() {
    if (!GoesWrong(subject_)) return false;
    while (ReduceExtents()) {
    }
    for (std::size_t i = 0; i < subject_.values.size(); ++i) ReduceValues(i);
    return true;
  }
  const Subject& Result() const { return subject_; }

 private:
  bool GoesWrong(const Subject& subject) {
    if (++trials_ > kMostTrials) return false;
    const RecordedLayer layer = Recorded(subject);
    const RepeatedLayer here = Repeat(plugin_, layer, BytesOf);
    const auto crashes = [](const RepeatedLayer& one) {
      const auto failed = [](const RepeatedCall& call) { return !call.failure.empty(); };
      return std::any_of(one.configures.begin(), one.configures.end(), failed) ||
             std::any_of(one.executes.begin(), one.executes.end(), failed);
    };
    if (reference_ == nullptr) return crashes(here);
    const RepeatedLayer there = Repeat(*reference_, layer, BytesOf);
    if (crashes(there)) return false;
    return crashes(here) || !AreSame(here, there);
  }

  // Whether both accept or refuse, and write the same.
  static bool AreSame(const RepeatedLayer& here, const RepeatedLayer& there) {
    for (std::size_t i = 0; i < here.configures.size(); ++i) {
      if (here.configures[i].what != there.configures[i].what) return false;
      if (there.configures[i].what != "accepted") return true;  // and no host goes on
    }
    for (std::size_t i = 0; i < here.executes.size(); ++i) {
      const RepeatedCall& a = here.executes[i];
      const RepeatedCall& b = there.executes[i];
      if (a.what != b.what || a.over_ones != b.over_ones || a.over_zeros != b.over_zeros) return false;
    }
    return true;
  }

  // Takes the candidate where it still goes wrong.
  bool Try(Subject candidate) {
    if (!GoesWrong(candidate)) return false;
    subject_ = std::move(candidate);
    return true;
  }

  // Makes one extent smaller, wherever it occurs, or along one axis of all buffers, or of one of them.
  bool ReduceExtents() {
    std::set<unsigned int> extents;
    std::size_t rank = 0;
    for (const auto* list : {&subject_.inputs, &subject_.outputs}) {
      for (const vek_host::BufAttrs& attrs : *list) {
        const Dims dims = attrs.GetDims();
        rank = std::max(rank, dims.size());
        for (const unsigned int extent : dims) extents.insert(extent);
      }
    }
    for (auto extent = extents.rbegin(); extent != extents.rend(); ++extent) {
      for (const unsigned int to : {1U, *extent / 2, *extent - 1}) {
        if (to == 0 || to >= *extent) continue;
        const auto everywhere = [&](std::size_t, std::size_t) { return true; };
        if (TryExtent(*extent, to, everywhere)) return true;
        for (std::size_t axis = 0; axis < rank; ++axis) {
          if (TryExtent(*extent, to, [axis](std::size_t, std::size_t d) { return d == axis; })) return true;
          for (std::size_t i = 0; subject_.inputs.size() > 1 && i < subject_.inputs.size(); ++i) {
            if (TryExtent(*extent, to,
                          [i, axis](std::size_t b, std::size_t d) { return b == i && d == axis; }))
              return true;
          }
        }
      }
    }
    return false;
  }

  // Where chosen(buffer, axis); the outputs count behind the inputs.
  template <typename Chosen>
  bool TryExtent(unsigned int from, unsigned int to, const Chosen& chosen) {
    const auto change = [&](Dims dims, std::size_t buffer) {
      for (std::size_t d = 0; d < dims.size(); ++d) {
        if (dims[d] == from && chosen(buffer, d)) dims[d] = to;
      }
      return dims;
    };
    for (const bool last : {false, true}) {
      Subject candidate = subject_;
      bool is_smaller = false;
      for (std::size_t i = 0; i < candidate.inputs.size(); ++i) {
        const Dims before = subject_.inputs[i].GetDims();
        const Dims after = change(before, i);
        is_smaller = is_smaller || after != before;
        candidate.inputs[i] = Reshaped(subject_.inputs[i], after);
        candidate.values[i] =
            Cropped(subject_.values[i], before, after, last, subject_.inputs[i].ElementBytes());
      }
      for (std::size_t i = 0; i < candidate.outputs.size(); ++i) {
        const Dims before = subject_.outputs[i].GetDims();
        Dims after = change(before, candidate.inputs.size() + i);
        if (output_follows_ && i == 0) after = OutputShape(candidate).value_or(after);
        if (ElementCount(after) == 0) return false;
        is_smaller = is_smaller || after != before;
        candidate.outputs[i] = Reshaped(subject_.outputs[i], after);
      }
      if (!is_smaller) return false;
      if (Try(std::move(candidate))) return true;
    }
    return false;
  }

  // Puts 0 in the place of as many elements of an input as can be: of all, of halves, of quarters.
  void ReduceValues(std::size_t input) {
    const std::size_t element_bytes = subject_.inputs[input].ElementBytes();
    const std::size_t elements = subject_.values[input].size() / element_bytes;
    for (std::size_t step = elements; step > 0; step /= 2) {
      for (std::size_t first = 0; first < elements; first += step) {
        Subject candidate = subject_;
        std::vector<std::byte>& values = candidate.values[input];
        const auto begin = values.begin() + static_cast<std::ptrdiff_t>(first * element_bytes);
        const auto end =
            values.begin() + static_cast<std::ptrdiff_t>(std::min(first + step, elements) * element_bytes);
        if (std::all_of(begin, end, [](std::byte b) { return b == std::byte{0}; })) continue;
        std::fill(begin, end, std::byte{0});
        Try(std::move(candidate));
      }
    }
  }

  const vek_host::Plugin& plugin_;
  const vek_host::Plugin* reference_;
  Subject subject_;
  bool output_follows_;  // from attributes and inputs
  int trials_ = 0;
};

std::string Quoted(const std::string& text) {
  const bool is_plain = text.find_first_not_of(
                            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                            "_-./,=:+") == std::string::npos;
  if (is_plain && !text.empty()) return text;
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// What follows the name of a file with the bytes of such a buffer.
std::string FileOptions(const vek_host::BufAttrs& attrs) {
  const zeb::PuxDnnBufAttrsMemFormat& format = attrs.GetMemFormat();
  std::string text = std::string(",type=") + Name(TypeOf(format)) + ",shape=" + ShapeText(attrs.GetDims());
  const std::string layout = LayoutText(attrs);
  if (layout != "dense") text += "," + layout;
  if (format.exp != 0) text += ",exp=" + std::to_string(format.exp);
  if (format.q8a) {
    char scale[32];
    std::snprintf(scale, sizeof scale, "%.9g", static_cast<double>(format.q8a_scale));
    text += ",zero=" + std::to_string(format.q8a_zero) + ",scale=" + scale;
  }
  return text;
}

}  // namespace

std::string RunCommandLine(const RecordedLayer& layer, const RecordedExecute& execute,
                           const std::string& folder, const std::string& plugin) {
  const RecordedConfigure* const configure = layer.ConfigureOf(execute);
  if (configure == nullptr || !execute.inputs) return "";
  char name[48];
  std::snprintf(name, sizeof name, "/call-%04llu", static_cast<unsigned long long>(execute.number));
  std::string text = "vekrun run " + Quoted(layer.type);
  for (std::size_t i = 0; i < execute.configures; ++i) {
    if (i > 0) text += " --then";
    for (const auto& [key, value] : layer.configures[i].attributes)
      text += " --attr " + Quoted(key + "=" + value);
  }
  for (std::size_t i = 0; i < configure->inputs.size(); ++i) {
    const auto layout = configure->inputs[i] == nullptr ? std::nullopt : LayoutOf(*configure->inputs[i]);
    if (!layout) return "";
    text += " --in " + Quoted(folder + name + "-in" + std::to_string(i) + ".bin" + FileOptions(*layout));
  }
  for (std::size_t i = 0; i < configure->outputs.size(); ++i) {
    const auto layout = configure->outputs[i] == nullptr ? std::nullopt : LayoutOf(*configure->outputs[i]);
    if (!layout) return "";
    text += " --out " + Quoted("out" + std::to_string(i) + ".bin" + FileOptions(*layout));
    if (i == 0 && execute.outputs)
      text += " --bits --expect " + Quoted(folder + name + "-out0.bin" + FileOptions(*layout));
  }
  if (!plugin.empty()) text += " --plugin " + Quoted(plugin);
  return text;
}

std::optional<RecordedLayer> Shrink(const vek_host::Plugin& plugin, const vek_host::Plugin* reference,
                                    const RecordedLayer& layer, const RecordedExecute& execute,
                                    const FindBytes& find) {
  std::optional<Subject> subject = SubjectOf(layer, execute, find);
  if (!subject) return std::nullopt;
  Shrinker shrinker(plugin, reference, std::move(*subject));
  if (!shrinker.Run()) return std::nullopt;
  RecordedLayer shrunk = Recorded(shrinker.Result());
  TakeOver(Repeat(reference == nullptr ? plugin : *reference, shrunk, BytesOf), &shrunk);
  return shrunk;
}

}  // namespace vekrun
