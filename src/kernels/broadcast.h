// Broadcast: one batch item, repeated along its channels, rows and columns.
#pragma once

namespace zeb_custom_ops::kernels {

struct BroadcastShape {
  unsigned C, H, W;            // the output's extents
  unsigned H_in, W_in;         // the input's
  unsigned in_line, out_line;  // elements from row to row
  bool repeat_c, repeat_h, repeat_w;
};

// The formula. Takes every shape: positions wrap at 32 bits, and rows may overlap the ones before. Nothing is written
// where nothing repeats; an input of no columns repeats none. Where channels repeat, what they repeat is written to the
// output even if it has no channels, and the first row, where rows and columns repeat too, even if it has no rows. The
// data must not overlap.
template <typename T>
void PlainBroadcast(T* out, const T* in, const BroadcastShape& shape);

// The same where something repeats, the output's rows do not overlap, and no position wraps: neither that of a row,
// one more than there are included, nor that of a dense plane.
template <typename T>
void Broadcast(T* out, const T* in, const BroadcastShape& shape);

}  // namespace zeb_custom_ops::kernels
