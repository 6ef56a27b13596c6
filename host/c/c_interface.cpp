// The reference host, as C calls it.
#include "host/c/c_interface.h"

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "guard/contained_call.h"
#include "guard/failure.h"
#include "guard/guarded_memory.h"
#include "host/buf_attrs.h"
#include "host/layer_rules.h"
#include "host/layout.h"
#include "host/name_table.h"
#include "host/plugin.h"
#include "host/reserved_slots.h"

namespace {

thread_local std::string g_error;

// Runs what makes something; null, with the reason kept, where that throws.
template <typename Make>
auto OrNull(Make make) -> decltype(make()) {
  try {
    return make();
  } catch (const std::exception& error) {
    g_error = error.what();
    return nullptr;
  }
}

// --- What the plug-in prints: it calls these in place of the C library's functions.

thread_local constinit std::string* g_heard =
    nullptr;  // where this thread's lines go; null: to standard output

__attribute__((format(printf, 1, 0))) int Hear(const char* format, va_list args) {
  if (g_heard == nullptr) return std::vprintf(format, args);
  char* line = nullptr;
  const int length = vasprintf(&line, format, args);
  if (length >= 0) {
    g_heard->append(line, static_cast<std::size_t>(length));
    std::free(line);
  }
  return length;
}

__attribute__((format(printf, 1, 2))) int PrintHeard(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = Hear(format, args);
  va_end(args);
  return length;
}

__attribute__((format(printf, 2, 3))) int PrintCheckedHeard(int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = Hear(format, args);
  va_end(args);
  return length;
}

// As the recorder prints: a list of arguments, to a stream.
__attribute__((format(printf, 2, 0))) int PrintListHeard(FILE* stream, const char* format, va_list args) {
  return stream == stdout ? Hear(format, args) : std::vfprintf(stream, format, args);
}

__attribute__((format(printf, 3, 0))) int PrintListCheckedHeard(FILE* stream, int /*flag*/,
                                                                const char* format, va_list args) {
  return PrintListHeard(stream, format, args);
}

int PutsHeard(const char* text) { return PrintHeard("%s\n", text); }

void HearPluginAt(const void* function) {
  Dl_info info{};
  link_map* map = nullptr;
  if (dladdr1(function, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0) return;
  const vek_host::NameTable table(*map);
  table.Bind("printf", reinterpret_cast<const void*>(&PrintHeard));
  table.Bind("__printf_chk", reinterpret_cast<const void*>(&PrintCheckedHeard));
  table.Bind("vfprintf", reinterpret_cast<const void*>(&PrintListHeard));
  table.Bind("__vfprintf_chk", reinterpret_cast<const void*>(&PrintListCheckedHeard));
  table.Bind("puts", reinterpret_cast<const void*>(&PutsHeard));
}

// --- A description by its answers alone.

class Answers final : public vek_host::ReservedSlots {
 public:
  Answers(const vek_answers& told, const zeb::PuxDnnBufAttrsMemFormat& format)
      : told_(told),
        format_(format),
        dims_(told.dims, told.dims + told.dims_count),
        strides_(told.strides, told.strides + told.strides_count) {}

  std::unique_ptr<PuxDnnBufAttrs> Clone() const override { return std::make_unique<Answers>(*this); }
  std::uint32_t GetSize() const override { return told_.size; }
  std::vector<unsigned int> GetDims() const override { return dims_; }
  unsigned int GetNumDims() const override { return told_.num_dims; }
  std::vector<unsigned int> GetStrides() const override { return strides_; }
  const zeb::PuxDnnBufAttrsMemFormat& GetMemFormat() const override { return format_; }
  void SetPlanePack(std::int32_t channels) override { format_.plane_pack = channels; }
  unsigned int GetBatch() const override { return told_.nchw[0]; }
  unsigned int GetChannels() const override { return told_.nchw[1]; }
  unsigned int GetHeight() const override { return told_.nchw[2]; }
  unsigned int GetWidth() const override { return told_.nchw[3]; }
  unsigned int GetLineStride() const override { return told_.line_stride; }
  unsigned int GetPlaneStride() const override { return told_.plane_stride; }
  void SetLineStride(unsigned int bytes) override { told_.line_stride = bytes; }
  void SetPlaneStride(unsigned int bytes) override { told_.plane_stride = bytes; }
  bool IsStrided() const override { return told_.strided != 0; }
  bool IsInterleaved() const override { return told_.interleaved != 0; }

 private:
  vek_answers told_;  // but for its lists, which are the caller's
  zeb::PuxDnnBufAttrsMemFormat format_;
  std::vector<unsigned int> dims_;
  std::vector<unsigned int> strides_;
};

zeb::PuxDnnBufAttrsMemFormat FormatOf(const vek_format& format) {
  zeb::PuxDnnBufAttrsMemFormat result;
  result.bitdepth = format.bitdepth;
  result.plane_pack = format.plane_pack;
  result.exp = format.exp;
  result.signed_ = format.is_signed != 0;
  result.float_ = format.is_float != 0;
  result.q8a = format.q8a != 0;
  result.q8a_zero = format.q8a_zero;
  result.q8a_scale = format.q8a_scale;
  return result;
}

vek_host::AttrMap MapOf(const vek_attributes& attributes) {
  vek_host::AttrMap map;
  // From last to first: the map's order, which a refusal may tell of, is then that of a recording again.
  for (std::size_t i = attributes.count; i-- > 0;) map.emplace(attributes.keys[i], attributes.values[i]);
  return map;
}

}  // namespace

struct vek_plugin {
  vek_host::Plugin plugin;
  std::string path;
};

struct vek_buffer {
  std::unique_ptr<zeb::PuxDnnBufAttrs> attrs;
  const vek_host::BufAttrs* laid_out;  // the same object, where its layout is known
};

struct vek_layer {
  const vek_plugin* plugin;
  vek_host::Plugin::Layer layer;
  std::vector<std::uint32_t> input_bytes;  // of the last Configure
  std::vector<std::uint32_t> output_bytes;
  std::string log;
};

namespace {

zeb::PuxDnnCustomLayer::BufAttrsList Clones(const vek_buffer* const* buffers, std::size_t count) {
  zeb::PuxDnnCustomLayer::BufAttrsList list;
  for (std::size_t i = 0; i < count; ++i) {
    list.push_back(buffers[i] == nullptr ? nullptr : buffers[i]->attrs->Clone());
  }
  return list;
}

std::vector<std::uint32_t> Sizes(const vek_buffer* const* buffers, std::size_t count) {
  std::vector<std::uint32_t> sizes;
  for (std::size_t i = 0; i < count; ++i) {
    sizes.push_back(buffers[i] == nullptr ? 0 : buffers[i]->attrs->GetSize());
  }
  return sizes;
}

// Calls the layer, and hears it.
template <typename Call>
int Hearing(vek_layer* layer, Call call) {
  layer->log.clear();
  g_heard = &layer->log;
  int outcome = VEK_THREW;
  try {
    outcome = call() ? VEK_DONE : VEK_REFUSED;
  } catch (const std::exception& error) {
    g_error = error.what();
  } catch (...) {
    g_error = "not a std::exception";
  }
  g_heard = nullptr;
  return outcome | (layer->log.empty() ? 0 : VEK_SPOKE);
}

// --- Guarded calls.

constexpr std::size_t kAlignment = 4;  // of the widest element

struct Guarded {
  Guarded(const char* name, const std::vector<std::uint32_t>& sizes) : name_(name) {
    for (const std::uint32_t size : sizes)
      memories_.emplace_back(size, size % kAlignment == 0 ? kAlignment : 1);
  }

  void Place(vek_guard::GuardedMemory::Against side) {
    for (vek_guard::GuardedMemory& memory : memories_) memory.Place(side);
  }
  void Load(void* const* from) {
    for (std::size_t i = 0; i < memories_.size(); ++i)
      std::memcpy(memories_[i].Data(), from[i], memories_[i].Bytes());
  }
  void Store(void* const* to) const {
    for (std::size_t i = 0; i < memories_.size(); ++i)
      std::memcpy(to[i], memories_[i].Data(), memories_[i].Bytes());
  }
  std::vector<void*> Pointers() const {
    std::vector<void*> pointers;
    for (const vek_guard::GuardedMemory& memory : memories_) pointers.push_back(memory.Data());
    return pointers;
  }
  // Adds the buffers as failures name them.
  void AppendTo(std::vector<vek_guard::NamedMemory>* named) const {
    for (std::size_t i = 0; i < memories_.size(); ++i) {
      named->push_back({&memories_[i], name_ + (" " + std::to_string(i)) + " (" +
                                           std::to_string(memories_[i].Bytes()) + " bytes)"});
    }
  }

 private:
  std::string name_;
  std::vector<vek_guard::GuardedMemory> memories_;
};

int ExecuteGuarded(vek_layer* layer, void** inputs, void** outputs) {
  static std::mutex one_at_a_time;  // a contained call tells its end through a variable of the process
  const std::lock_guard<std::mutex> lock(one_at_a_time);
  Guarded in("input", layer->input_bytes);
  Guarded out("output", layer->output_bytes);
  in.Load(inputs);
  out.Load(outputs);
  for (const auto side :
       {vek_guard::GuardedMemory::Against::kBack, vek_guard::GuardedMemory::Against::kFront}) {
    const bool first = side == vek_guard::GuardedMemory::Against::kBack;
    in.Place(side);
    out.Place(side);
    const vek_guard::Ending ending = vek_guard::CallContained(
        [&] {
          if (!first) layer->plugin->plugin.SetLogThreshold("NONE");
          return layer->layer->Execute(in.Pointers().data(), out.Pointers().data());
        },
        /*show=*/false);
    if (first) layer->log = ending.output;
    if (ending.threw) {
      g_error = ending.exception;
      return VEK_THREW;
    }
    if (ending.returned && !ending.value) return VEK_REFUSED;
    std::vector<vek_guard::NamedMemory> named;
    in.AppendTo(&named);
    out.AppendTo(&named);
    g_error = ending.returned ? vek_guard::SpoiledRest(named).value_or("")
                              : vek_guard::FailureOf(ending, named).text;
    if (!g_error.empty()) return VEK_CRASHED;
  }
  out.Store(outputs);
  return VEK_DONE;
}

}  // namespace

const char* vek_error(void) { return g_error.c_str(); }

vek_plugin* vek_open(const char* path) {
  return OrNull([&] {
    auto plugin = std::make_unique<vek_plugin>(vek_plugin{vek_host::Plugin(path), ""});
    plugin->path = plugin->plugin.Path();
    // Its table refers to this library from now on, so neither goes.
    void* library = dlopen(plugin->path.c_str(), RTLD_NOW | RTLD_NODELETE | RTLD_LOCAL);
    if (library == nullptr) throw std::runtime_error(dlerror());
    HearPluginAt(dlsym(library, "create_object"));
    plugin->plugin.SetLogThreshold("INFO");
    return plugin.release();
  });
}

const char* vek_plugin_path(const vek_plugin* plugin) { return plugin->path.c_str(); }

void vek_set_log_level(vek_plugin* plugin, const char* level) { plugin->plugin.SetLogThreshold(level); }

const char* vek_layer_type(size_t index) {
  const auto& rules = vek_host::AllLayerRules();
  return index < rules.size() ? rules[index].type : nullptr;
}

const char* vek_element_types(const char* type) {
  const vek_host::LayerRules* rules = vek_host::FindLayerRules(type);
  return rules == nullptr ? nullptr : rules->element_types;
}

vek_buffer* vek_describe(const uint32_t* dims, size_t rank, const vek_format* format, uint32_t line_stride,
                         uint32_t plane_stride) {
  return OrNull([&] {
    auto attrs =
        std::make_unique<vek_host::BufAttrs>(std::vector<unsigned int>(dims, dims + rank), FormatOf(*format));
    if (format->plane_pack < 1) throw std::runtime_error("a plane holds at least one channel");
    const std::uint64_t row = attrs->RowBytes();
    const std::uint64_t line = line_stride == 0 ? row : line_stride;
    if (line < row) {
      throw std::runtime_error("a line stride of " + std::to_string(line) + " bytes is less than the " +
                               std::to_string(row) + " of a row");
    }
    const std::uint64_t plane = plane_stride == 0 ? line * attrs->GetHeight() : plane_stride;
    if (plane < line * attrs->GetHeight()) {
      throw std::runtime_error("a plane stride of " + std::to_string(plane) + " bytes is less than the " +
                               std::to_string(line * attrs->GetHeight()) + " of its rows");
    }
    // Step by step, so that no product wraps.
    std::uint64_t bytes = std::max(plane, line);
    for (const std::uint64_t factor :
         {std::uint64_t{attrs->PlanesPerItem()}, std::uint64_t{attrs->GetBatch()}}) {
      if (bytes <= UINT32_MAX) bytes *= factor;
    }
    std::uint64_t elements = 1;
    for (std::size_t i = 0; i < rank; ++i) {
      if (elements <= UINT32_MAX) elements *= dims[i];
    }
    if (bytes > UINT32_MAX || elements > UINT32_MAX) throw std::runtime_error("a tensor must be below 4 GiB");
    attrs->SetLineStride(static_cast<unsigned int>(line));
    attrs->SetPlaneStride(static_cast<unsigned int>(plane));
    const vek_host::BufAttrs* laid_out = attrs.get();
    return new vek_buffer{std::move(attrs), laid_out};
  });
}

vek_buffer* vek_describe_answers(const vek_answers* answers) {
  return OrNull([&] {
    return new vek_buffer{std::make_unique<Answers>(*answers, FormatOf(answers->format)), nullptr};
  });
}

void vek_forget(vek_buffer* buffer) { delete buffer; }
uint32_t vek_bytes(const vek_buffer* buffer) { return buffer->attrs->GetSize(); }
uint32_t vek_line_stride(const vek_buffer* buffer) { return buffer->attrs->GetLineStride(); }
uint32_t vek_plane_stride(const vek_buffer* buffer) { return buffer->attrs->GetPlaneStride(); }

void vek_pack(const vek_buffer* buffer, const void* dense, void* bytes) {
  vek_host::Pack(*buffer->laid_out, static_cast<const std::byte*>(dense), static_cast<std::byte*>(bytes));
}

void vek_unpack(const vek_buffer* buffer, const void* bytes, void* dense) {
  vek_host::Unpack(*buffer->laid_out, static_cast<const std::byte*>(bytes), static_cast<std::byte*>(dense));
}

size_t vek_output_shape(const char* type, const vek_attributes* attributes, const vek_buffer* const* inputs,
                        size_t input_count, uint32_t* dims, size_t room) {
  const vek_host::LayerRules* rules = vek_host::FindLayerRules(type);
  if (rules == nullptr || input_count == 0) return 0;
  try {
    vek_host::InputAttrs list;
    for (std::size_t i = 0; i < input_count; ++i) list.push_back(inputs[i]->attrs.get());
    const vek_host::Dims shape = rules->output_shape(MapOf(*attributes), list);
    std::copy_n(shape.begin(), std::min(shape.size(), room), dims);
    return shape.size();
  } catch (const std::exception& error) {
    g_error = error.what();
    return 0;
  }
}

vek_layer* vek_make(vek_plugin* plugin, const char* type) {
  return OrNull([&]() -> vek_layer* {
    vek_host::Plugin::Layer layer = plugin->plugin.MakeLayer(type);
    if (layer == nullptr) throw std::runtime_error(std::string("the plug-in has no layer type ") + type);
    return new vek_layer{plugin, std::move(layer), {}, {}, ""};
  });
}

void vek_destroy(vek_layer* layer) { delete layer; }

int vek_configure(vek_layer* layer, const vek_attributes* attributes, const vek_buffer* const* inputs,
                  size_t input_count, const vek_buffer* const* outputs, size_t output_count) {
  return Hearing(layer, [&] {
    layer->input_bytes = Sizes(inputs, input_count);
    layer->output_bytes = Sizes(outputs, output_count);
    return layer->layer->Configure(MapOf(*attributes), Clones(inputs, input_count),
                                   Clones(outputs, output_count));
  });
}

int vek_execute(vek_layer* layer, void** inputs, void** outputs) {
  return Hearing(layer, [&] { return layer->layer->Execute(inputs, outputs); });
}

int vek_execute_guarded(vek_layer* layer, void** inputs, void** outputs) {
  layer->log.clear();
  int outcome = VEK_THREW;
  try {
    outcome = ExecuteGuarded(layer, inputs, outputs);
  } catch (const std::exception& error) {
    g_error = error.what();
  }
  return outcome | (layer->log.empty() ? 0 : VEK_SPOKE);
}

const char* vek_log(const vek_layer* layer) { return layer->log.c_str(); }
