#include "operand.h"

namespace vekrun {

std::string TensorText(const vek_host::BufAttrs& attrs) {
  return ShapeText(attrs.GetDims()) + " " + Name(TypeOf(attrs.GetMemFormat()));
}

std::string Text(const Operand& operand) {
  return operand.role + " (" + operand.file.name + ", " + TensorText(operand.attrs) + ", " +
         std::to_string(operand.attrs.Bytes()) + " bytes)";
}

std::string LayoutText(const vek_host::BufAttrs& attrs) {
  std::string text;
  if (attrs.IsInterleaved()) text += ",pack=" + std::to_string(attrs.GetMemFormat().plane_pack);
  if (attrs.GetLineStride() > attrs.RowBytes()) text += ",line=" + std::to_string(attrs.GetLineStride());
  if (attrs.GetPlaneStride() > std::uint64_t{attrs.GetHeight()} * attrs.GetLineStride()) {
    text += ",plane=" + std::to_string(attrs.GetPlaneStride());
  }
  return text.empty() ? "dense" : text.substr(1);
}

std::vector<std::unique_ptr<zeb::PuxDnnBufAttrs>> Descriptions(const std::vector<Operand>& operands) {
  std::vector<std::unique_ptr<zeb::PuxDnnBufAttrs>> list;
  for (const Operand& operand : operands) list.push_back(operand.attrs.Clone());
  return list;
}

}  // namespace vekrun
