// A plug-in whose layers do what none should, one way each; vekrun has to tell which.
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "zeb/pux_dnn_custom_layer.h"

namespace {

// Not seen through by the compiler.
volatile std::uintptr_t null_address = 0;
volatile int zero = 0;

int Recurse(volatile int* depth) {
  volatile char room[4096];
  *depth = *depth + 1;
  room[0] = static_cast<char>(*depth);
  return *depth < 0 ? 0 : Recurse(depth) + room[0];
}

class BadLayer final : public zeb::PuxDnnCustomLayer {
 public:
  explicit BadLayer(std::string type) : type_(std::move(type)) {}

  bool Configure(const AttrMap&, const BufAttrsList& inputs, const BufAttrsList& outputs) override {
    in_bytes_ = inputs[0]->GetSize();
    out_bytes_ = outputs[0]->GetSize();
    return type_ != "REFUSE";
  }

  bool Execute(void** in_buffers, void** out_buffers) override {
    auto* const in = static_cast<volatile unsigned char*>(in_buffers[0]);
    auto* const out = static_cast<volatile unsigned char*>(out_buffers[0]);
    std::printf("a line, and a part of one");
    if (type_ == "READ_BEHIND") out[0] = in[in_bytes_ + 5];
    if (type_ == "READ_AHEAD") out[0] = *(in - 3);
    if (type_ == "READ_FAR") out[0] = in[in_bytes_ + 900'000'000U];
    if (type_ == "WRITE_BEHIND") out[out_bytes_] = 1;
    if (type_ == "WRITE_AHEAD") *(out - 1) = 1;
    if (type_ == "NULL") *reinterpret_cast<volatile int*>(null_address) = 1;
    if (type_ == "WILD") *reinterpret_cast<volatile int*>(null_address + 0x123450000) = 1;
    if (type_ == "STACK") std::printf("%d", Recurse(&depth_));
    if (type_ == "DIVIDE") {
#if defined(__aarch64__)
      std::raise(SIGFPE);  // Its integer division by zero gives 0.
#else
      out[0] = static_cast<unsigned char>(5 / zero);
#endif
    }
    if (type_ == "ABORT") std::abort();
    if (type_ == "EXIT") std::exit(7);
    if (type_ == "THROW") throw std::runtime_error("of its own");
    if (type_ == "THROW_INT") throw 5;
    if (type_ == "HALF") {
      for (std::size_t i = 0; i < out_bytes_ / 2; ++i) out[i] = in[i];
      return true;
    }
    for (std::size_t i = 0; i < out_bytes_; ++i) out[i] = type_ == "OTHER" ? 1 : 0xFF;
    return true;
  }

 private:
  std::string type_;
  std::size_t in_bytes_ = 0;
  std::size_t out_bytes_ = 0;
  volatile int depth_ = 0;
};

}  // namespace

extern "C" {

ZEB_EXPORT zeb::PuxDnnCustomLayer* create_object(const std::string& type) { return new BadLayer(type); }
ZEB_EXPORT void destroy_object(zeb::PuxDnnCustomLayer* layer) { delete layer; }
ZEB_EXPORT void set_log_treshold(const char*) {}

}  // extern "C"
