// What a data-movement layer does, told as a list of moves: which element of the output gets which element of
// the input. The references of the layers make such lists from their formulas, one element at a time.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "support/fake_buf_attrs.h"
#include "support/log_capture.h"

namespace vek_test {

struct Move {
  static constexpr std::int64_t kFill = -1;  // as `from`: the fill value
  std::int64_t to;
  std::int64_t from;
};

// What one call of Execute does. Without `runs`, it reaches further than the buffers of any test.
struct Outcome {
  bool result = true;
  Log log = {};
  int bitdepth = 0;  // of the elements that are moved
  std::uint64_t fill = 0;
  std::vector<Move> moves = {};
  bool runs = true;

  static constexpr std::uint64_t kMost = 1U << 17;

  // Notes a loop of `count` steps; false when that is more than a test takes.
  bool Takes(std::uint64_t count) { return runs = runs && count <= kMost; }
  void Add(std::int64_t to, std::int64_t from) {
    moves.push_back({to, from});
    runs = runs && to >= 0 && to < std::int64_t{kMost} && from < std::int64_t{kMost};
  }
};

// The parts of a message put together; `bool` and `char` do not occur.
template <typename... Parts>
std::string Text(const Parts&... parts) {
  std::ostringstream text;
  (text << ... << parts);
  return text.str();
}

// What "%d" shows of an unsigned value.
inline int D(std::uint64_t value) { return static_cast<int>(static_cast<std::uint32_t>(value)); }

// The shape that the four accessors tell.
struct Nchw {
  std::uint32_t N, C, H, W;
  explicit Nchw(const Buf& buf) : N(buf.At(0)), C(buf.At(1)), H(buf.At(2)), W(buf.At(3)) {}
};

inline bool IsWholeBytes(int bitdepth) { return bitdepth == 8 || bitdepth == 16 || bitdepth == 32; }

// Bytes that a layer wants for the elements of a description: whole bytes, rounded up.
inline std::uint64_t BytesWanted(const Buf& buf) {
  if (buf.format.float_) return buf.Count() * 4;
  return (static_cast<std::uint64_t>(std::int64_t{buf.format.bitdepth}) * buf.Count() + 7) / 8;
}

// The last checks of the layers that move blocks: format, layout, sizes. Empty when all of them hold.
inline std::string FormatRefusal(const Buf& in, const Buf& out) {
  if (in.format.bitdepth != out.format.bitdepth) {
    return Text("input bitdepth: ", in.format.bitdepth,
                ", differs from output bitdepth: ", out.format.bitdepth);
  }
  if (in.format.plane_pack != 1 || out.format.plane_pack != 1) {
    return Text("expected interleaving: 1, instead got interleaving on input: ", in.format.plane_pack,
                ", on output: ", out.format.plane_pack);
  }
  if (in.IsStrided() || out.IsStrided()) {
    return "buffer with stride detected on input or output, which is not supported.";
  }
  if (in.size < BytesWanted(in)) {
    return Text("input buffer size too small, size: ", D(in.size),
                " bytes vs expected at least: ", BytesWanted(in), " bytes.");
  }
  if (out.size < BytesWanted(out)) {
    return Text("output buffer size too small, size: ", D(out.size),
                " bytes vs expected at least: ", BytesWanted(out), " bytes.");
  }
  return {};
}

}  // namespace vek_test
