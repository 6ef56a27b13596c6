/// \file
/// The slots of a buffer description that the library never calls.
#pragma once

#include "zeb/pux_dnn_buf_attrs.h"

namespace vek_host {

/// What a host's descriptions derive from: its reserved slots do nothing.
class ReservedSlots : public zeb::PuxDnnBufAttrs {
 public:
  void Reserved3() final {}
  void Reserved7() final {}
  void Reserved10() final {}
  void Reserved11() final {}
  void Reserved12() final {}
  void Reserved13() final {}
  void Reserved19() final {}
  void Reserved20() final {}
  void Reserved21() final {}
  void Reserved22() final {}
};

}  // namespace vek_host
