// A softmax of ten scores, with the reference host in host/ to load the plug-in and describe the buffers.
#include <cstdio>
#include <stdexcept>

#include "host/buf_attrs.h"
#include "host/plugin.h"

int main(int argc, char** argv) try {
  const vek_host::Plugin plugin(argc > 1 ? argv[1] : "libvekcustom.so");
  const auto layer = plugin.MakeLayer("SOFTMAX");

  zeb::PuxDnnBufAttrsMemFormat format;  // 32 bits, one channel per plane
  format.float_ = true;
  zeb::PuxDnnCustomLayer::BufAttrsList inputs;
  zeb::PuxDnnCustomLayer::BufAttrsList outputs;
  inputs.push_back(std::make_unique<vek_host::BufAttrs>(std::vector<unsigned>{1, 10, 1, 1}, format));
  outputs.push_back(inputs[0]->Clone());
  if (!layer->Configure({{"axis", "1"}}, inputs, outputs)) return 1;  // the log has said why

  float scores[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  float probabilities[10];
  void* in[] = {scores};
  void* out[] = {probabilities};
  if (!layer->Execute(in, out)) return 1;
  for (float probability : probabilities) std::printf("%.6f\n", static_cast<double>(probability));
  return 0;
} catch (const std::runtime_error& error) {
  std::fprintf(stderr, "The plug-in was not loaded: %s\nGive its path: %s PATH/libvekcustom.so\n",
               error.what(), argv[0]);
  return 1;
}
