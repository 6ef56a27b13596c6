// A complete host: loads the plug-in, describes two buffers, runs one layer over them, prints the result.
//
//     host [path of libvekcustom.so]
#include <dlfcn.h>
#include <zeb/pux_dnn_buf_attrs.h>
#include <zeb/pux_dnn_custom_layer.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

// A dense tensor of floats, N x C x H x W.
class DenseFloats final : public zeb::PuxDnnBufAttrs {
 public:
  DenseFloats(unsigned n, unsigned c, unsigned h, unsigned w)
      : dims_{n, c, h, w}, line_stride_(w * 4), plane_stride_(h * line_stride_) {
    format_.float_ = true;  // the record's defaults say the rest: 32 bits, one channel per plane
  }

  std::unique_ptr<PuxDnnBufAttrs> Clone() const override { return std::make_unique<DenseFloats>(*this); }
  std::uint32_t GetSize() const override { return dims_[0] * dims_[1] * plane_stride_; }
  std::vector<unsigned> GetDims() const override { return dims_; }
  unsigned GetNumDims() const override { return 4; }
  std::vector<unsigned> GetStrides() const override {
    return {dims_[1] * plane_stride_, plane_stride_, line_stride_, line_stride_};
  }
  const zeb::PuxDnnBufAttrsMemFormat& GetMemFormat() const override { return format_; }
  unsigned GetBatch() const override { return dims_[0]; }
  unsigned GetChannels() const override { return dims_[1]; }
  unsigned GetHeight() const override { return dims_[2]; }
  unsigned GetWidth() const override { return dims_[3]; }
  unsigned GetLineStride() const override { return line_stride_; }
  unsigned GetPlaneStride() const override { return plane_stride_; }
  bool IsStrided() const override {
    return line_stride_ > dims_[3] * 4 || plane_stride_ > dims_[2] * line_stride_;
  }
  bool IsInterleaved() const override { return format_.plane_pack > 1; }

  void SetPlanePack(std::int32_t channels) override { format_.plane_pack = channels; }
  void SetLineStride(unsigned bytes) override { line_stride_ = bytes; }
  void SetPlaneStride(unsigned bytes) override { plane_stride_ = bytes; }

  // Never called; they keep the slots of the others.
  void Reserved3() override {}
  void Reserved7() override {}
  void Reserved10() override {}
  void Reserved11() override {}
  void Reserved12() override {}
  void Reserved13() override {}
  void Reserved19() override {}
  void Reserved20() override {}
  void Reserved21() override {}
  void Reserved22() override {}

 private:
  std::vector<unsigned> dims_;
  zeb::PuxDnnBufAttrsMemFormat format_;
  unsigned line_stride_;   // bytes
  unsigned plane_stride_;  // bytes
};

template <typename Function>
bool Find(void* library, const char* name, Function** function) {
  *function = reinterpret_cast<Function*>(dlsym(library, name));
  return *function != nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  // Load. The path is the runtime's business; a bare name is looked for where the dynamic loader looks.
  void* library = dlopen(argc > 1 ? argv[1] : "libvekcustom.so", RTLD_NOW | RTLD_LOCAL);
  zeb::PuxDnnCustomLayer* (*create_object)(const std::string& type) = nullptr;
  void (*destroy_object)(zeb::PuxDnnCustomLayer * layer) = nullptr;
  if (library == nullptr || !Find(library, "create_object", &create_object) ||
      !Find(library, "destroy_object", &destroy_object)) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }

  // Configure, once. The layer keeps clones of the descriptions; these here may go.
  zeb::PuxDnnCustomLayer* layer = create_object("SOFTMAX");
  if (layer == nullptr) return 1;  // not one of the library's type names
  zeb::PuxDnnCustomLayer::BufAttrsList inputs;
  zeb::PuxDnnCustomLayer::BufAttrsList outputs;
  inputs.push_back(std::make_unique<DenseFloats>(1, 4, 1, 1));
  outputs.push_back(std::make_unique<DenseFloats>(1, 4, 1, 1));
  bool done = layer->Configure({{"axis", "1"}}, inputs, outputs);

  // Run, as often as there is data. One pointer per buffer, in the order of Configure.
  std::vector<float> scores = {0.5F, 2.0F, -1.0F, 1.0F};
  std::vector<float> probabilities(4);
  void* in[] = {scores.data()};
  void* out[] = {probabilities.data()};
  done = done && layer->Execute(in, out);

  // Destroy, by the library that made it, and while it is still loaded.
  destroy_object(layer);
  dlclose(library);

  if (!done) return 1;  // the reason is on standard output
  for (float probability : probabilities) std::printf("%.6f\n", static_cast<double>(probability));
  return 0;
}
