/// \file
/// How the host describes one tensor buffer to a layer: its shape, its layout in memory, its element format.
///
/// The host implements `zeb::PuxDnnBufAttrs`; the library only calls it. The two may be built by different
/// compilers, so the order of the virtual functions is the binary interface: none may be moved, added in
/// between or removed, and the reserved ones keep the slots of functions that belong to the host alone.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "zeb/export.h"

namespace zeb {

/// Element encoding of a tensor. A plain record, copied by value; the order of the fields is fixed.
struct ZEB_EXPORT PuxDnnBufAttrsMemFormat {
  std::int32_t bitdepth = 32;   ///< Bits per element: 8, 16 or 32.
  std::int32_t plane_pack = 1;  ///< Channels interleaved in one plane; 1 means planar.
  std::int32_t exp = 0;         ///< Fixed point: a stored integer v stands for v * 2^exp.
  bool signed_ = false;         ///< Elements are signed.
  bool float_ = false;          ///< Elements are IEEE single precision; only with `bitdepth` 32.
  bool q8a = false;             ///< Asymmetric 8 bit: q stands for (q - q8a_zero) * q8a_scale.
  std::uint8_t q8a_zero = 0;    ///< Zero point of `q8a` data.
  float q8a_scale = 1.0F;       ///< Scale of `q8a` data.
};

/// Description of one tensor buffer, implemented by the host.
///
/// Dims run outermost first; a 4-D tensor is [N, C, H, W]. The channels of a batch item are grouped into
/// ceil(C / plane_pack) planes; a plane holds H rows; a row holds W pixels of `plane_pack` consecutive
/// channel values. The first byte of row h of the plane with channel c of item n lies at
///
///     (n * ceil(C / plane_pack) + c / plane_pack) * GetPlaneStride() + h * GetLineStride()
class ZEB_EXPORT PuxDnnBufAttrs {
 public:
  virtual ~PuxDnnBufAttrs() = default;  // slots 0 and 1

  /// \return an independent deep copy. Layers keep clones, never the host's own objects.
  virtual std::unique_ptr<PuxDnnBufAttrs> Clone() const = 0;  // slot 2
  virtual void Reserved3() = 0;                               ///< Never called by the library.
  /// \return the size of the buffer in bytes, all padding included.
  virtual std::uint32_t GetSize() const = 0;  // slot 4
  /// \return the size of every dimension, outermost first.
  virtual std::vector<unsigned int> GetDims() const = 0;
  /// \return the number of dimensions, the length of `GetDims()`.
  virtual unsigned int GetNumDims() const = 0;
  virtual void Reserved7() = 0;  ///< Never called by the library.
  /// \return one stride per dimension in bytes, in the order of `GetDims()`; the last entry is the length of
  /// one innermost run. Only data stride conversion asks for it, for tensors that are not 4-D.
  virtual std::vector<unsigned int> GetStrides() const = 0;  // slot 8
  /// \return the element format.
  virtual const PuxDnnBufAttrsMemFormat& GetMemFormat() const = 0;
  virtual void Reserved10() = 0;  ///< Never called by the library.
  virtual void Reserved11() = 0;  ///< Never called by the library.
  virtual void Reserved12() = 0;  ///< Never called by the library.
  virtual void Reserved13() = 0;  ///< Never called by the library.
  /// Sets the number of interleaved channels of the described layout.
  virtual void SetPlanePack(std::int32_t channels) = 0;  // slot 14
  virtual unsigned int GetBatch() const = 0;             ///< \return N.
  virtual unsigned int GetChannels() const = 0;          ///< \return C.
  virtual unsigned int GetHeight() const = 0;            ///< \return H.
  virtual unsigned int GetWidth() const = 0;             ///< \return W.
  virtual void Reserved19() = 0;                         ///< Never called by the library.
  virtual void Reserved20() = 0;                         ///< Never called by the library.
  virtual void Reserved21() = 0;                         ///< Never called by the library.
  virtual void Reserved22() = 0;                         ///< Never called by the library.
  /// \return bytes from the start of one row to the start of the next.
  virtual unsigned int GetLineStride() const = 0;  // slot 23
  /// \return bytes from the start of one plane (`plane_pack` channels, H rows) to the start of the next.
  virtual unsigned int GetPlaneStride() const = 0;
  virtual void SetLineStride(unsigned int bytes) = 0;   ///< Sets the line stride in bytes.
  virtual void SetPlaneStride(unsigned int bytes) = 0;  ///< Sets the plane stride in bytes.
  /// \return true when rows or planes carry padding.
  virtual bool IsStrided() const = 0;
  /// \return true when several channels share a plane.
  virtual bool IsInterleaved() const = 0;  // slot 28
};

}  // namespace zeb
