// A kernel has two forms: the plain formula, for every shape, and a fast one, for the shapes that its header names.
// Here both run on the same arguments as the model's formula, and are compared in every byte.
#pragma once

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "cases/setups.h"
#include "model/memory.h"

namespace vek_cases {

// What a form is given. `answer` is what it returns, as a number, where it returns something.
struct FormData {
  std::vector<const void*> in;
  void* out = nullptr;
  vek_model::u64 answer = 0;

  template <typename T>
  const T* In(std::size_t i = 0) const {
    return static_cast<const T*>(in[i]);
  }
  template <typename T>
  T* Out() const {
    return static_cast<T*>(out);
  }
};

struct ModelData {
  std::vector<vek_model::Memory*> in;
  vek_model::Memory& out;
  vek_model::u64 answer = 0;
};

// A kernel's arguments, bound to the model's formula and to both forms.
struct KernelCase {
  vek_model::u32 width = 4;                  // bytes of an element
  bool computes = false;                     // floats, whose NaNs have any bits
  std::vector<vek_model::Memory::Words> in;  // what the inputs hold
  std::vector<std::size_t> in_place;         // inputs whose buffer the output may be
  std::function<void(ModelData&)> model;
  std::function<void(FormData&)> plain;  // empty for a kernel of one form
  std::function<void(FormData&)> fast;   // empty where the header rules it out
};

// A kernel, and what must have been compared at the end.
struct Kernel {
  std::string name;
  std::string type;
  // The arguments, from a setup of that layer type; nothing where the header rules out both forms.
  std::function<std::optional<KernelCase>(const Setup&, Random&)> make;
  bool has_plain = true;
  bool wraps = true;  // positions can pass 2^32 without as many steps
  bool in_place = false;

  friend std::ostream& operator<<(std::ostream& out, const Kernel& kernel) { return out << kernel.name; }
};

// Random setups, valid and spoilt ones: both forms equal the model, often enough.
void ExpectFormsEqualTheModel(const Kernel& kernel);

// Extents and steps whose products pass 2^32 while little is moved: the plain form equals the model, often enough
// where the kernel `wraps`.
void ExpectPlainFormWraps(const Kernel& kernel);

// Calls `body` with a value of the first of the types for elements of 4 bytes, of the second for 2, of the third for 1.
template <typename Four, typename Two, typename One, typename Body>
void WithElement(vek_model::u32 width, const Body& body) {
  if (width == 4) body(Four{});
  if (width == 2) body(Two{});
  if (width == 1) body(One{});
}

}  // namespace vek_cases
