// Code that moves elements, next to the model's formula for it: over buffers of exactly the bytes that the formula
// touches, and every byte compared.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "cases/contents.h"
#include "model/model.h"
#include "support/exact_buffers.h"
#include "support/plugin.h"
#include "support/random.h"

namespace vek_test {

// Bytes up to the last one that a formula touched.
struct Touched {
  std::uint64_t in;
  std::uint64_t out;
};

// `formula(in, out)` works on the model's memories, `call(in, out)` on buffers that begin with the same bytes; both are
// called for an unmapped page on either side.
template <typename Formula, typename Call>
Touched ExpectSameBytes(Random& random, const Formula& formula, const Call& call) {
  Touched touched{};
  for (const Guard guard : {Guard::kBefore, Guard::kAfter}) {
    vek_model::Memory in(vek_cases::AnyBits(random));
    vek_model::Memory out(vek_cases::AnyBits(random));
    formula(in, out);
    ExactBuffers buffers(guard);
    call(buffers.Of(in), buffers.Of(out));
    EXPECT_EQ(buffers.Difference(), "");
    touched = {in.reach(), out.reach()};
  }
  return touched;
}

// A layer of one input, and its model.
class ModelledLayer {
 public:
  explicit ModelledLayer(const std::string& type) : layer_(type), model_(vek_model::MakeModel(type)) {}

  // `log` is what Configure says: nothing where it accepts.
  void Configure(const Setup& setup, const Log& log = {}) {
    EXPECT_EQ(layer_.Configure(setup.attrs, setup.in, setup.out), log.empty());
    EXPECT_EQ(layer_.log, log);
    EXPECT_EQ(model_->Configure(setup.attrs, setup.in, setup.out), log.empty());
  }
  Touched Execute(Random& random) {
    bool result = false;
    return ExpectSameBytes(
        random,
        [&](vek_model::Memory& in, vek_model::Memory& out) {
          vek_model::Arrays arrays;
          arrays.in = {&in};
          arrays.out = {&out};
          model_->log.clear();
          result = model_->Execute(arrays);
        },
        [&](void* in, void* out) {
          EXPECT_EQ(layer_.Execute({in}, {out}), result);
          EXPECT_EQ(layer_.log, model_->log);
        });
  }

 private:
  Layer layer_;
  std::unique_ptr<vek_model::Model> model_;
};

// Runs values through a new layer, which says nothing.
template <typename T>
std::vector<T> Outputs(const std::string& type, const AttrMap& attrs, const Buf& in_attrs,
                       const Buf& out_attrs, const std::vector<T>& values) {
  Layer layer(type);
  EXPECT_TRUE(layer.Configure(attrs, {in_attrs}, {out_attrs}));
  const GuardedBuffer in = Guarded(values);
  const GuardedBuffer out(out_attrs.size);
  EXPECT_TRUE(layer.Execute({in.data()}, {out.data()}));
  EXPECT_EQ(layer.log, Log{});
  return out.Get<T>();
}

// Calls `body(T())` for the three types of elements that kernels have instances for.
template <typename Body>
void ForWidths(const Body& body) {
  body(int());
  body(short());
  body(char());
}

// Calls `body(N, C, H, W)` for small shapes, odd ones, and rows about a vector long, until a test fails.
template <typename Body>
void ForShapes(const Body& body) {
  using Extents = std::initializer_list<unsigned>;
  for (unsigned N : Extents{1, 2}) {
    for (unsigned C : Extents{1, 3}) {
      for (unsigned H : Extents{1, 2, 3, 5}) {
        for (unsigned W : Extents{1, 2, 3, 5, 8, 15, 16, 17, 33}) {
          SCOPED_TRACE(testing::PrintToString(std::vector<unsigned>{N, C, H, W}));
          body(N, C, H, W);
          if (testing::Test::HasFailure()) return;
        }
      }
    }
  }
}

}  // namespace vek_test
