#include "support/room_headers.h"

#include <functional>

#include "contract/fixed_point.h"
#include "copy/runs.h"
#include "kernels/argmax.h"
#include "math/exact_math.h"

namespace vek_test::room {

namespace detail = zeb_custom_ops::detail;

std::int32_t TruncateToInt32(float value) { return detail::TruncateToInt32(value); }
std::uint32_t TruncateToUint32(float value) { return detail::TruncateToUint32(value); }
template <typename T>
T FillValue(std::uint32_t value, std::int32_t exp) {
  return detail::FillValue<T>(value, exp);
}
template int FillValue(std::uint32_t, std::int32_t);
template short FillValue(std::uint32_t, std::int32_t);
template char FillValue(std::uint32_t, std::int32_t);
template unsigned char FillValue(std::uint32_t, std::int32_t);

template <typename T>
void FillRun(T* dst, T value, std::size_t count) {
  detail::FillRun(dst, value, count);
}
template void FillRun(std::uint8_t*, std::uint8_t, std::size_t);
template void FillRun(std::uint16_t*, std::uint16_t, std::size_t);
template void FillRun(int*, int, std::size_t);
template void FillRun(float*, float, std::size_t);

std::size_t ListsAtOnce() { return zeb_custom_ops::kernels::kListsAtOnce; }

template <typename Op>
void PlainZipBroadcast(const float* a, const BroadcastSteps& a_steps, const float* b,
                       const BroadcastSteps& b_steps, float* out, unsigned N, unsigned C, unsigned H,
                       unsigned W) {
  detail::PlainZipBroadcast(a, a_steps, b, b_steps, out, N, C, H, W, Op());
}
template <typename Op>
void ZipBroadcast(const float* a, const BroadcastSteps& a_steps, const float* b,
                  const BroadcastSteps& b_steps, float* out, unsigned N, unsigned C, unsigned H, unsigned W) {
  detail::ZipBroadcast(a, a_steps, b, b_steps, out, N, C, H, W, Op());
}
#define VEK_INSTANCES(Op)                                                                                  \
  template void PlainZipBroadcast<Op>(const float*, const BroadcastSteps&, const float*,                   \
                                      const BroadcastSteps&, float*, unsigned, unsigned, unsigned,         \
                                      unsigned);                                                           \
  template void ZipBroadcast<Op>(const float*, const BroadcastSteps&, const float*, const BroadcastSteps&, \
                                 float*, unsigned, unsigned, unsigned, unsigned)
VEK_INSTANCES(std::multiplies<>);
VEK_INSTANCES(std::divides<>);

void PlainMulPlanes(const float* per_plane, const float* full, float* out, unsigned count, unsigned plane) {
  detail::PlainMulPlanes(per_plane, full, out, count, plane);
}
void MulPlanes(const float* per_plane, const float* full, float* out, std::size_t planes, std::size_t plane) {
  detail::MulPlanes(per_plane, full, out, planes, plane);
}

std::size_t FloatLanes() { return detail::kFloatLanes; }
void ExpNonPositive(const float* x, float* out) {
  detail::Store(out, detail::ExpNonPositive(detail::Load<detail::Floats>(x)));
}

}  // namespace vek_test::room
