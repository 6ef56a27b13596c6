#include "model/vek_pad.h"

#include "model/list.h"

namespace vek_model {

void CopyDenseInterior(const Pads& p, const Shape& i, const Shape& o, Memory& in, Memory& out) {
  const Steps steps = Steps::Dense(o);
  u32 from = 0;
  for (u32 n = 0; n < i.n; ++n) {
    out.Step();
    for (u32 c = 0; c < i.c; ++c) {
      out.Step();
      for (u32 h = 0; h < i.h; ++h) {
        out.Step();
        for (u32 w = 0; w < i.w; ++w) {
          out.Move(4, steps.At(n + p[0], c + p[2], h + p[4], p[6] + w), in, from++);
        }
      }
    }
  }
}

void CopyStridedInterior(u32 width, const Pads& p, const Buf& in_buf, const Buf& out_buf, Memory& in,
                         Memory& out) {
  const Shape i(in_buf);
  if (i.IsEmpty()) return out.Step(u64{i.n} * i.c);
  const auto pack = static_cast<u32>(in_buf.format.plane_pack);
  const auto groups = static_cast<u32>((u64{i.c} + pack - 1) / pack);
  const Steps from = Steps::Strided(width, in_buf, groups);
  const Steps to = Steps::Strided(width, out_buf, Shape(out_buf).c);
  for (u32 n = 0; n < i.n; ++n) {
    for (u32 g = 0; g < groups; ++g) {
      for (u32 h = 0; h < i.h; ++h) {
        for (u32 w = 0; w < i.w; ++w) {
          for (u32 k = 0; k < pack && u64{g} * pack + k < i.c; ++k) {
            out.Move(width, to.At(n, p[0] + p[2] + g * pack + k, p[4] + h, p[6] + w), in,
                     u32{from.At(n, g, h, w * pack) + k});
          }
        }
      }
    }
  }
}

namespace {

// The border of one axis, in units: elements of a row, rows, planes or items. `copy(to, from)` and `clear(to, value)`
// work on whole units.
template <typename Copy, typename Clear>
void PadAxis(int mode, u32 before, u32 extent, u32 after, u32 fill, const Copy& copy, const Clear& clear) {
  const u32 first = before;
  const u32 last = before + extent - 1;
  const u32 skipped = mode == 1 ? 1 : 0;  // the edge itself is not repeated
  const auto unit = [&](u32 k, u32 to, u32 edge, u32 mirrored) {
    if (mode == 4) {
      clear(to, fill);
    } else if (mode == 2) {
      copy(to, edge);
    } else if (extent >= skipped && k < extent - skipped) {
      copy(to, mirrored);
    } else {
      clear(to, 0);
    }
  };
  for (u32 k = 0; k < before; ++k) unit(k, first - 1 - k, first, first + skipped + k);
  for (u32 k = 0; k < after; ++k) unit(k, last + 1 + k, last, last - skipped - k);
}

}  // namespace

void PadBorder(u32 width, int mode, const Pads& p, const Shape& i, const Shape& o, const Steps& at, u32 fill,
               Memory& out) {
  if (mode < 1 || mode > 4) return;
  // Where rows or planes lie over each other, the order within one side shows, and nothing fixes it.
  const bool one_plane = u64{p[0]} + i.n + p[1] <= 1 && u64{p[2]} + i.c + p[3] <= 1;
  if (at.line < o.w || (!one_plane && at.plane < u64{at.line} * o.h)) throw Skip{};
  const auto copy = [&](u32 to, u32 from) { out.Move(width, to, out, from); };
  const auto clear = [&](u32 to, u32 value) { out.Fill(width, to, value); };
  const auto for_row = [&](const auto& body) {
    out.Step();
    for (u32 w = 0; w < o.w; ++w) body(w);
  };
  const auto for_plane = [&](const auto& body) {
    out.Step();
    for (u32 h = 0; h < o.h; ++h) for_row([&](u32 w) { body(h, w); });
  };
  for (u32 n = p[0]; n != u32{p[0] + i.n}; ++n) {
    out.Step();
    for (u32 c = p[2]; c != u32{p[2] + i.c}; ++c) {
      out.Step();
      for (u32 h = p[4]; h != u32{p[4] + i.h}; ++h) {
        out.Step();
        const u32 row = at.At(n, c, h, 0);
        PadAxis(
            mode, p[6], i.w, p[7], fill, [&](u32 to, u32 from) { copy(row + to, row + from); },
            [&](u32 to, u32 value) { clear(row + to, value); });
      }
      const u32 plane = at.At(n, c, 0, 0);
      PadAxis(
          mode, p[4], i.h, p[5], fill,
          [&](u32 to, u32 from) {
            for_row([&](u32 w) { copy(plane + at.At(0, 0, to, w), plane + at.At(0, 0, from, w)); });
          },
          [&](u32 to, u32 value) { for_row([&](u32 w) { clear(plane + at.At(0, 0, to, w), value); }); });
    }
    PadAxis(
        mode, p[2], i.c, p[3], fill,
        [&](u32 to, u32 from) {
          for_plane([&](u32 h, u32 w) { copy(at.At(n, to, h, w), at.At(n, from, h, w)); });
        },
        [&](u32 to, u32 value) { for_plane([&](u32 h, u32 w) { clear(at.At(n, to, h, w), value); }); });
  }
  PadAxis(
      mode, p[0], i.n, p[1], fill,
      [&](u32 to, u32 from) {
        for (u32 c = 0; c < o.c; ++c) {
          for_plane([&](u32 h, u32 w) { copy(at.At(to, c, h, w), at.At(from, c, h, w)); });
        }
      },
      [&](u32 to, u32 value) {
        for (u32 c = 0; c < o.c; ++c) {
          for_plane([&](u32 h, u32 w) { clear(at.At(to, c, h, w), value); });
        }
      });
}

namespace {

class PadModel : public Model {
 public:
  PadModel() : Model("vek_pad.cpp") {}

  bool Configure(const AttrMap& attrs, const std::vector<Buf>& in, const std::vector<Buf>& out) override {
    if (attrs.size() < 4) return Fail("expected 4 attribute, but got %zu", attrs.size());
    const std::string* text = Expected(attrs, "pad_mode");
    if (!text) return false;
    mode_ = static_cast<i32>(Long(*text));
    text = Expected(attrs, "pad");
    if (!text) return false;
    value_ = static_cast<u32>(Long(*text));
    if (!ReadList(attrs, "pad_shape", pads_) || !ReadList(attrs, "format", format_)) return false;
    if (!IsOneInOneOut(in, out) || !HasElements("Input", in[0]) || !HasElements("Output", out[0])) {
      return false;
    }
    in_ = in[0];
    out_ = out[0];
    return configured_ = true;
  }

  bool Execute(const Arrays& arrays) override {
    if (!configured_) return Fail("Can't run Execute() without Configure()");
    if (!ArraysGiven(arrays, "Input buffer is NULL", "Output buffer is NULL")) return false;
    const bool channels_first = format_ == std::array<u32, 4>{0, 1, 2, 3};
    const bool strided = out_.format.plane_pack == 1 && channels_first;
    const u32 width = strided ? WidthOf(in_.format.bitdepth) : 4;
    if (in_.format.q8a && !strided) {
      const auto difference = static_cast<float>(value_ - in_.format.q8a_zero);
      value_ = TruncateToUnsigned(difference * in_.format.q8a_scale);
    }
    if (!channels_first && format_ != std::array<u32, 4>{0, 2, 3, 1}) {
      Fail("Unknown format not supported.");
      return Fail("can't calculate Pad");
    }
    if (width == 0) return Fail("CopyBuffer_v1() - unhandled bitdepth!");
    Memory* in = arrays.in[0];
    Memory* out = arrays.out[0];
    if (!in || !out) {
      Fail("Pad_reflect_v1 input or output buffer is null.");
      return Fail("can't calculate Pad");
    }
    const Shape interior(in_);
    const Shape whole(out_);
    if (!strided) {
      CopyDenseInterior(pads_, interior, whole, *in, *out);
      const auto value = static_cast<float>(value_);
      u32 bits;
      std::memcpy(&bits, &value, sizeof bits);
      PadBorder(4, mode_, pads_, interior, whole, Steps::Dense(whole), bits, *out);
      return true;
    }
    if (in_.format.plane_pack < 1 && !interior.IsEmpty()) {
      FailOwn();
      return Fail("can't calculate Pad");
    }
    CopyStridedInterior(width, pads_, in_, out_, *in, *out);
    PadBorder(width, mode_, pads_, interior, whole, Steps::Strided(width, out_, whole.c),
              FixedPointFill(value_, out_.format.exp, width == 1), *out);
    return true;
  }

 private:
  const std::string* Expected(const AttrMap& attrs, const char* key) {
    const std::string* text = Find(attrs, key);
    if (!text) Fail("expected attribute %s, but did not get it.", key);
    return text;
  }
  template <std::size_t count>
  bool ReadList(const AttrMap& attrs, const char* key, std::array<u32, count>& numbers) {
    const std::string* text = Expected(attrs, key);
    if (!text) return false;
    const List list = ParseList(*text);
    if (!list.ok) return Fail("ERROR: %s", list.error.c_str());
    if (list.elements.size() < count) return FailOwn();
    for (std::size_t i = 0; i < count; ++i) numbers[i] = static_cast<u32>(Long(list.elements[i]));
    return true;
  }

  i32 mode_ = 0;
  u32 value_ = 0;
  Pads pads_{};
  std::array<u32, 4> format_{};
  Buf in_;
  Buf out_;
};

}  // namespace

std::unique_ptr<Model> MakePad() { return std::make_unique<PadModel>(); }

}  // namespace vek_model
