// An independent model of the layers: what each Configure and Execute returns, prints and writes, by the plain formulas,
// over memory that notes how far it was touched. It shares no code with the library.
//
// Each layer has a file with its class and, as free functions, its formulas. Positions wrap at 32 bits.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "model/memory.h"
#include "support/fake_buf_attrs.h"
#include "support/log_capture.h"

namespace vek_model {

using vek_test::AttrMap;
using vek_test::Buf;
using vek_test::Format;
using vek_test::Log;
using Dims = std::vector<u32>;

// The sizes that the four accessors tell.
struct Shape {
  Shape(u32 batch, u32 channels, u32 height, u32 width) : n(batch), c(channels), h(height), w(width) {}
  explicit Shape(const Buf& buf) : Shape(buf.At(0), buf.At(1), buf.At(2), buf.At(3)) {}
  u32 Count() const { return n * c * h * w; }
  bool IsEmpty() const { return n == 0 || c == 0 || h == 0 || w == 0; }
  // The element at these coordinates of a dense tensor.
  u32 At(u32 in, u32 ic, u32 ih, u32 iw) const { return ((in * c + ic) * h + ih) * w + iw; }

  u32 n, c, h, w;
};

// The arrays that Execute is given. A null entry stands for a null pointer.
struct Arrays {
  bool in_null = false;
  bool out_null = false;
  std::vector<Memory*> in;
  std::vector<Memory*> out;
};

// A message whose text is the layer's own business.
inline const char* const kOwnText = "*";

class Model {
 public:
  virtual ~Model() = default;
  virtual bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) = 0;
  virtual bool Execute(const Arrays& arrays) = 0;
  // How many input pointers Execute reads.
  virtual std::size_t InputsRead() const { return 1; }
  // Whether results are floats that arithmetic makes, whose NaNs have any bits.
  virtual bool Computes() const { return false; }
  // Whether Execute may write to the buffer of that input.
  virtual bool RunsInPlace(std::size_t /*input*/) const { return false; }
  // Where that input holds indices, the number they should stay below; else 0.
  virtual u32 IndicesBelow(std::size_t /*input*/) const { return 0; }

  Log log;  // of the last call

 protected:
  explicit Model(std::string file) : file_(std::move(file)) {}

  bool Fail(const char* text, ...) __attribute__((format(printf, 2, 3)));
  bool FailOwn() { return Fail("%s", kOwnText); }
  void Inform(const char* text, ...) __attribute__((format(printf, 2, 3)));
  void PrintFormat(const Format& format);

  // Refusals that layers share. Each prints its message and returns false where what it names does not hold.
  bool CountsAreOne(const std::vector<Buf>& in, const std::vector<Buf>& out);  // "wrong number of inputs ..."
  bool IsOneInOneOut(const std::vector<Buf>& in, const std::vector<Buf>& out);  // "expected one input ..."
  bool IsPlanarFloat(const char* side, const Buf& buf);                         // and its format
  bool HaveMovableFormats(const Buf& in, const Buf& out);
  bool HasRoom(const char* side, const Buf& buf, u64 bytes);          // and its format
  bool HasElements(const char* side, const Buf& buf);                 // elements against bytes
  bool HasBytes(const char* side, const Buf& buf);                    // whole bytes, rounded up
  bool IsNotStrided(const char* side, const Buf& buf);                // "... on input, ..."
  bool IsPlain(const char* side, const char* layer, const Buf& buf);  // "... on input of Softmax, ..."
  bool ArraysGiven(const Arrays& arrays, const char* in_text, const char* out_text);
  bool EntriesGiven(const Arrays& arrays, std::size_t count);

  std::string file_;
  bool configured_ = false;
};

// The model of a layer type; null for an unknown name.
std::unique_ptr<Model> MakeModel(const std::string& type);

// --- What most models ask of attributes and descriptions.

const std::string* Find(const AttrMap& attrs, const char* key);
i64 Long(const std::string& text);
u64 Product(const Dims& dims);
inline u32 Product32(const Dims& dims) { return static_cast<u32>(Product(dims)); }
u64 BytesUp(const Buf& buf);
// Bytes of an element of 32, 16 or 8 bits; 0 for any other.
inline u32 WidthOf(int bitdepth) {
  return bitdepth == 32 || bitdepth == 16 || bitdepth == 8 ? static_cast<u32>(bitdepth) / 8 : 0;
}
bool IsPlanarFloat(const Format& format);
// What "%d" shows.
inline int D(u64 value) { return static_cast<int>(value); }
inline unsigned long long LLU(u64 value) { return value; }
inline u32 Quotient(u32 a, u32 b) { return b == 0 ? 0 : a / b; }
// The element, of which narrow ones keep the low bits, that stands for `value` in fixed point: the product in doubles,
// rounded once, truncated within 32 bits.
u32 FixedPointFill(u32 value, int exp, bool to_unsigned);
u32 TruncateToUnsigned(float value);

}  // namespace vek_model
