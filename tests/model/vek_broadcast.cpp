#include "model/vek_broadcast.h"

#include <array>

#include "model/list.h"

namespace vek_model {

void Broadcast(u32 width, const Buf& in, const Buf& out, bool along_c, bool along_h, bool along_w,
               Memory& in_data, Memory& out_data) {
  const Shape i(in);
  const Shape o(out);
  const u32 in_line = in.line_stride / width;
  const u32 out_line = out.line_stride / width;
  const u32 plane = o.h * o.w;
  const auto column = [&](u32 x) { return i.w == 0 ? x : x % i.w; };
  const auto put = [&](u32 to, u32 from) { out_data.Move(width, to, in_data, from); };
  const auto repeat = [&](u32 to, u32 count) {  // of the output's first elements
    out_data.Step();
    for (u32 x = 0; x < count; ++x) out_data.Move(width, u32{to + x}, out_data, x);
  };

  if (along_c && !along_h && !along_w) {
    for (u32 c = 0; c < o.c; ++c) {
      out_data.Step();
      for (u32 x = 0; x < plane; ++x) put(c * plane + x, x);
    }
  } else if (along_c) {
    if (along_h && along_w) {
      for (u32 x = 0; x < o.w; ++x) put(x, column(x));
      u32 row = o.w;
      for (u32 h = 1; h < o.h; ++h, row += out_line) repeat(row, o.w);
    } else {
      for (u32 h = 0; h < o.h; ++h) {
        out_data.Step();
        for (u32 x = 0; x < o.w; ++x) put(h * out_line + x, along_h ? x : h * in_line + column(x));
      }
    }
    for (u32 c = 1; c < o.c; ++c) repeat(c * plane, plane);
  } else if (along_h || along_w) {
    for (u32 c = 0; c < o.c; ++c) {
      out_data.Step();
      for (u32 h = 0; h < o.h; ++h) {
        out_data.Step();
        const u32 row = along_h ? c * in_line : c * i.h * in_line + h * in_line;
        for (u32 x = 0; x < o.w; ++x) {
          put(c * o.h * out_line + h * out_line + x, row + (along_w ? column(x) : x));
        }
      }
    }
  }
}

namespace {

class BroadcastModel : public Model {
 public:
  BroadcastModel() : Model("vek_broadcast.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (!IsOneInOneOut(in, out)) return false;
    const Buf& i = in[0];
    const Buf& o = out[0];
    if (i.dims.size() != 4 && o.dims.size() != 4) {
      return Fail("non-4D IO not supported. Got %dD input, %dD output", D(i.dims.size()), D(o.dims.size()));
    }
    if (attrs.size() != 1) return Fail("expected 1 attribute, but got %zu", attrs.size());
    const std::string* text = Find(attrs, "size");
    if (!text) return Fail("expected attribute: size, got: %s", attrs.begin()->first.c_str());
    const List list = ParseList(*text);
    if (!list.ok) {
      Fail("broadcast size attribute parse error");
      return Fail("parser msg: %s", list.error.c_str());
    }
    if (list.elements.size() != 4) {
      return Fail("broadcast size attribute of incorrect size. Expected 4, but got %zu",
                  list.elements.size());
    }
    const char* const names[] = {"batch", "channel", "height", "width"};
    for (std::size_t d = 0; d < 4; ++d) {
      if (i.At(d) != o.At(d) && i.At(d) != 1) {
        return Fail("input tensor incompatible %s (is %d, but should be %d or 1)", names[d], D(i.At(d)),
                    D(o.At(d)));
      }
    }
    std::array<bool, 4> along{};
    for (std::size_t d = 0; d < 4; ++d) along[d] = std::stoi(list.elements[d]) > 0;
    along_ = along;
    if (along_[0]) return Fail("Batch dim not supported by broadcast op");
    if (!HasRoom("Input", i) || !HasRoom("Output", o)) return false;
    if (!HasNoPlanePadding("input", i) || !HasNoPlanePadding("output", o)) return false;
    if (i.format.plane_pack != 1) return Fail("Interleaved data in input buffer");
    if (o.format.plane_pack != 1) return Fail("Interleaved data in output buffer");
    in_ = i;
    out_ = o;
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (arrays.in_null || !arrays.in[0]) return Fail("Input buffer is NULL");
    if (arrays.out_null || !arrays.out[0]) return Fail("Output buffer is NULL");
    const u32 width = WidthOf(in_.format.bitdepth);
    if (width == 0) return Fail("Broadcast_v1() - unhandled bitdepth!");
    Broadcast(width, in_, out_, along_[1], along_[2], along_[3], *arrays.in[0], *arrays.out[0]);
    return true;
  }

 private:
  bool HasRoom(const char* side, const Buf& buf) {
    return Product(buf.dims) <= buf.size ||
           Fail("%s buf size should be at least %u, but is %u", side, Product32(buf.dims), buf.size);
  }
  bool HasNoPlanePadding(const char* side, const Buf& buf) {
    const u32 H = buf.dims.size() > 2 ? buf.dims[2] : buf.At(2);
    return buf.plane_stride == 0 || buf.plane_stride == buf.line_stride * H ||
           Fail("data with invalid s_stride detected on %s of Broadcast: Got %u expected %u", side,
                buf.plane_stride, buf.line_stride * H);
  }

  Buf in_;
  Buf out_;
  std::array<bool, 4> along_{};
};

}  // namespace

std::unique_ptr<Model> MakeBroadcast() { return std::make_unique<BroadcastModel>(); }

}  // namespace vek_model
