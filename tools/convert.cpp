#include "convert.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <optional>

#include "element_values.h"
#include "file_argument.h"
#include "new_file.h"
#include "tensor_file.h"
#include "usage_error.h"

namespace vekrun {
namespace {

// The stored value, before rounding, that stands for a real one.
template <typename Number>
Number Stored(const zeb::PuxDnnBufAttrsMemFormat& format, Number real) {
  if (format.float_) return real;
  if (format.q8a) return real / Number{format.q8a_scale} + Number{static_cast<double>(format.q8a_zero)};
  return std::ldexp(real, -format.exp);
}

// Elements that the target cannot hold as they are.
struct Misfits {
  std::uint64_t count = 0;
  std::vector<unsigned int> index;  // of the first one
  std::string element;
};

struct Conversion {
  bool real;
  Rounding rounding;
  ElementType type;
  zeb::PuxDnnBufAttrsMemFormat format;
  Misfits rounded, beyond;
};

template <typename Number>
void ConvertAs(const LaidOut& in, std::byte* out, Conversion* conversion) {
  const std::size_t width = ElementBytes(conversion->type);
  ForEachElement(Offsets(in.attrs), [&](const std::vector<unsigned int>& index, std::size_t offset) {
    auto value = ReadElement<Number>(in.type, in.memory + offset);
    if (conversion->real) value = Stored(conversion->format, Real(in.attrs.GetMemFormat(), value));
    const Fit fit = WriteElement(conversion->type, value, conversion->rounding, out);
    out += width;
    if (fit == Fit::kExact) return;
    Misfits& misfits = fit == Fit::kRounded ? conversion->rounded : conversion->beyond;
    if (misfits.count++ > 0) return;
    misfits.index = index;
    misfits.element = ElementText(in.type, in.memory + offset);
  });
}

// Layers drop the fraction of a constant for a fixed-point format; what else is to be rounded goes to the nearest.
Rounding RoundingOf(const ConvertRequest& request, const zeb::PuxDnnBufAttrsMemFormat& format) {
  if (!request.rounding.empty())
    return request.rounding == "zero" ? Rounding::kTowardZero : Rounding::kNearest;
  return request.real && !format.q8a && !format.float_ ? Rounding::kTowardZero : Rounding::kNearest;
}

std::string Text(const Misfits& misfits, const char* failing, const char* type) {
  const std::string first = misfits.element + " at " + IndexText(misfits.index);
  const std::string verb = misfits.count == 1 ? "does " : "do ";
  const std::string who =
      misfits.count == 1 ? first : std::to_string(misfits.count) + " elements, the first " + first + ",";
  return who + " " + verb + failing + " " + type;
}

}  // namespace

CLI::App* AddConvert(CLI::App* app, ConvertRequest* request) {
  CLI::App* convert = app->add_subcommand("convert", "Write a tensor in another format, layout or type");
  convert->add_option("IN", request->in, "The tensor")->required();
  convert
      ->add_option("OUT", request->out,
                   "The file; type=, shape= and the layout are the input's unless given here")
      ->required();
  convert->add_flag(
      "--real", request->real,
      "Convert what elements stand for: quantise and dequantise by exp, or zero and scale, of IN and OUT");
  convert->add_option("--round", request->rounding, "Round elements that the type cannot hold exactly")
      ->check(CLI::IsMember({"nearest", "zero"}));
  convert->add_flag("--saturate", request->saturate,
                    "Cut elements beyond the type to its ends; NaN becomes 0");
  convert->footer(
      "An element that the type does not hold exactly is refused, unless rounding is asked for. With --real "
      "elements\n"
      "are rounded: toward zero for exp=, to the nearest (of two the even one) for scale= and floats.\n"
      "Exit status: 0 done, 1 an element does not fit, 2 wrong usage or a file that cannot be read or "
      "written.");
  return convert;
}

bool Convert(const ConvertRequest& request) {
  const StoredTensor stored = OpenTensor(ParseFileArgument(request.in));
  const LaidOut in = View(stored);
  const FileArgument target = ParseFileArgument(request.out);
  if (target.path == "-") KeepStandardOutputForFiles();
  const Dims in_dims = in.attrs.GetDims();
  const Dims dims = target.shape.value_or(in_dims);
  if (ElementCount(dims) != ElementCount(in_dims)) {
    throw UsageError(in.name + " holds " + ShapeText(in_dims) + ", which shape=" + ShapeText(dims) +
                     " does not");
  }
  const ElementType type = target.type.value_or(in.type);
  const vek_host::BufAttrs attrs = Describe(target, dims, FormatOf(type));
  CheckCanHold(target, type, dims);

  Conversion conversion{
      request.real, RoundingOf(request, attrs.GetMemFormat()), type, attrs.GetMemFormat(), {}, {}};
  Tensor tensor{type, dims, nullptr};
  const std::shared_ptr<std::byte> data = NewBytes(tensor.Bytes());
  tensor.data = data;
  if (FitsDouble(in.type) && FitsDouble(type)) {
    ConvertAs<double>(in, data.get(), &conversion);
  } else {
    ConvertAs<long double>(in, data.get(), &conversion);
  }
  const bool may_round = request.real || !request.rounding.empty();
  if (conversion.beyond.count > 0 && !request.saturate) {
    std::fprintf(stderr, "vekrun: %s: %s; to cut such elements to its ends give --saturate\n",
                 in.name.c_str(), Text(conversion.beyond, "not fit in", Name(type)).c_str());
    return false;
  }
  if (conversion.rounded.count > 0 && !may_round) {
    std::fprintf(stderr, "vekrun: %s: %s; to round such elements give --round\n", in.name.c_str(),
                 Text(conversion.rounded, "not exist exactly in", Name(type)).c_str());
    return false;
  }

  NewFile file(target.path);
  WriteTensor(target, tensor, &file);
  file.Publish();
  std::printf("%s (%s %s)", target.path.c_str(), ShapeText(dims).c_str(), Name(type));
  if (conversion.rounded.count > 0) {
    std::printf(", %llu rounded", static_cast<unsigned long long>(conversion.rounded.count));
  }
  if (conversion.beyond.count > 0) {
    std::printf(", %llu cut, first %s at %s", static_cast<unsigned long long>(conversion.beyond.count),
                conversion.beyond.element.c_str(), IndexText(conversion.beyond.index).c_str());
  }
  std::printf("\n");
  return true;
}

}  // namespace vekrun
