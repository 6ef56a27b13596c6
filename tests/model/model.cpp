#include "model/model.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "model/vek_argmax.h"
#include "model/vek_batchtospace.h"
#include "model/vek_broadcast.h"
#include "model/vek_concat.h"
#include "model/vek_datastrideconv.h"
#include "model/vek_depthtospace.h"
#include "model/vek_ewo.h"
#include "model/vek_gather.h"
#include "model/vek_l2norm.h"
#include "model/vek_matmul.h"
#include "model/vek_pad.h"
#include "model/vek_permute.h"
#include "model/vek_reshape.h"
#include "model/vek_softmax.h"
#include "model/vek_spacetobatch.h"
#include "model/vek_spacetodepth.h"

namespace vek_model {
namespace {

__attribute__((format(printf, 1, 0))) std::string Formatted(const char* text, std::va_list arguments) {
  char line[1024];
  std::vsnprintf(line, sizeof line, text, arguments);
  return line;
}

}  // namespace

bool Model::Fail(const char* text, ...) {
  std::va_list arguments;
  va_start(arguments, text);
  log.push_back(vek_test::Error(file_, Formatted(text, arguments)));
  va_end(arguments);
  return false;
}

void Model::Inform(const char* text, ...) {
  std::va_list arguments;
  va_start(arguments, text);
  log.push_back(vek_test::Info(file_, Formatted(text, arguments)));
  va_end(arguments);
}

void Model::PrintFormat(const Format& f) {
  char line[256];
  std::snprintf(line, sizeof line,
                "bitdepth=%d, plane_pack=%d, exp=%d, signed=%d, float=%d, q8a=%d, q8a_zero=%d, q8a_scale=%f",
                f.bitdepth, f.plane_pack, f.exp, f.signed_, f.float_, f.q8a, f.q8a_zero,
                static_cast<double>(f.q8a_scale));
  log.push_back(vek_test::Info("vek_common.cpp", line));
}

bool Model::CountsAreOne(const std::vector<Buf>& in, const std::vector<Buf>& out) {
  if (in.size() != 1) return Fail("wrong number of inputs, expected: 1, got: %zu", in.size());
  if (out.size() != 1) return Fail("wrong number of outputs, expected: 1, got: %zu", out.size());
  return true;
}

bool Model::IsOneInOneOut(const std::vector<Buf>& in, const std::vector<Buf>& out) {
  return (in.size() == 1 && out.size() == 1) ||
         Fail("expected one input and one output, got: %d inputs, %d outputs", D(in.size()), D(out.size()));
}

bool Model::IsPlanarFloat(const char* side, const Buf& buf) {
  if (vek_model::IsPlanarFloat(buf.format)) return true;
  Fail("unexpected %s buffer format", side);
  PrintFormat(buf.format);
  return false;
}

bool Model::HaveMovableFormats(const Buf& in, const Buf& out) {
  for (const auto& [side, buf] : {std::pair{"input", &in}, {"output", &out}}) {
    if (WidthOf(buf->format.bitdepth) != 0 && buf->format.plane_pack == 1) continue;
    Fail("unexpected %s buffer format", side);
    PrintFormat(buf->format);
    return false;
  }
  if (in.format.bitdepth == out.format.bitdepth) return true;
  Fail("incompatible buffer formats");
  PrintFormat(in.format);
  PrintFormat(out.format);
  return false;
}

bool Model::HasRoom(const char* side, const Buf& buf, u64 bytes) {
  return bytes <= buf.size ||
         Fail("%s buf size should be at least %llu, but is %d", side, LLU(bytes), D(buf.size));
}

bool Model::HasElements(const char* side, const Buf& buf) {
  return Product(buf.dims) <= buf.size ||
         Fail("%s buf size should be at least %d, but is %d", side, D(Product(buf.dims)), D(buf.size));
}

bool Model::HasBytes(const char* side, const Buf& buf) {
  return BytesUp(buf) <= buf.size ||
         Fail("%s size too small, size: %d bytes vs expected at least: %llu bytes.", side, D(buf.size),
              LLU(BytesUp(buf)));
}

bool Model::IsNotStrided(const char* side, const Buf& buf) {
  return !buf.IsStrided() || Fail("strided data detected on %s, this is not supported.", side);
}

bool Model::IsPlain(const char* side, const char* layer, const Buf& buf) {
  if (buf.IsStrided()) return Fail("strided data detected on %s of %s, this is not supported.", side, layer);
  if (buf.IsInterleaved())
    return Fail("interleaved data detected on %s of %s, this is not supported.", side, layer);
  return true;
}

bool Model::ArraysGiven(const Arrays& arrays, const char* in_text, const char* out_text) {
  if (arrays.in_null) return Fail("%s", in_text);
  if (arrays.out_null) return Fail("%s", out_text);
  return true;
}

bool Model::EntriesGiven(const Arrays& arrays, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    if (arrays.in[i] == nullptr) return Fail("Input buffer %d pointer is NULL", D(i));
  }
  return true;
}

std::unique_ptr<Model> MakeModel(const std::string& type) {
  if (type == "SOFTMAX") return MakeSoftmax();
  if (type == "DATA_STRIDE_CONV") return MakeDataStrideConv();
  if (type == "RESHAPE") return MakeReshape();
  if (type == "BROADCAST") return MakeBroadcast();
  if (type == "ARGMAX") return MakeArgmax();
  if (type == "NORMALIZE") return MakeL2Norm();
  if (type == "MATMUL") return MakeMatmul();
  if (type == "PERMUTE") return MakePermute();
  if (type == "SWCONCAT") return MakeConcat();
  if (type == "DEPTHTOSPACE") return MakeDepthToSpace();
  if (type == "PAD") return MakePad();
  if (type == "GATHER") return MakeGather();
  if (type == "ELTWISE") return MakeEwo();
  if (type == "SPACETOBATCH") return MakeSpaceToBatch();
  if (type == "SPACETODEPTH") return MakeSpaceToDepth();
  if (type == "BATCHTOSPACE") return MakeBatchToSpace();
  return nullptr;
}

const std::string* Find(const AttrMap& attrs, const char* key) {
  const auto found = attrs.find(key);
  return found == attrs.end() ? nullptr : &found->second;
}

i64 Long(const std::string& text) { return std::strtol(text.c_str(), nullptr, 10); }

u64 Product(const Dims& dims) {
  u64 product = 1;
  for (u32 dim : dims) product *= dim;
  return product;
}

u64 BytesUp(const Buf& buf) {
  const u64 count = Product(buf.dims);
  return buf.format.float_ ? count * 4 : (static_cast<u64>(i64{buf.format.bitdepth}) * count + 7) / 8;
}

bool IsPlanarFloat(const Format& format) {
  return format.bitdepth == 32 && format.plane_pack == 1 && format.float_;
}

u32 TruncateToUnsigned(float value) {
  if (!(value > 0)) return 0;
  return value >= 4294967296.0F ? ~0U : static_cast<u32>(value);
}

u32 FixedPointFill(u32 value, int exp, bool to_unsigned) {
  const auto factor = static_cast<i32>(1U << (static_cast<u32>(-i64{exp}) & 31));
  const auto product = static_cast<float>(static_cast<double>(factor) * static_cast<double>(value));
  if (to_unsigned) return TruncateToUnsigned(product);
  if (product >= 2147483648.0F) return 0x7fffffffU;
  if (product <= -2147483648.0F) return 0x80000000U;
  return static_cast<u32>(static_cast<i32>(product));
}

}  // namespace vek_model
