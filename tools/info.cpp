#include "info.h"

#include <langinfo.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>

#include "file_argument.h"
#include "new_file.h"
#include "sum.h"
#include "tensor_file.h"

namespace vekrun {
namespace {

constexpr std::size_t kFew = 16;   // elements, which are printed themselves
constexpr std::size_t kBins = 60;  // with the margin, the lines of a terminal

template <typename Number>
Number ValueAt(const LaidOut& tensor, std::size_t offset, bool real) {
  const auto stored = ReadElement<Number>(tensor.type, tensor.memory + offset);
  return real ? Real(tensor.attrs.GetMemFormat(), stored) : stored;
}

// The smallest distance of two stored elements that are not equal; 0 for floats.
double Unit(const LaidOut& tensor, bool real) {
  if (IsFloat(tensor.type)) return 0;
  const zeb::PuxDnnBufAttrsMemFormat& format = tensor.attrs.GetMemFormat();
  return real ? std::fabs(Real(format, 1.0) - Real(format, 0.0)) : 1;
}

// Bins of one width from the least to the most; of integers, each covers as many of them.
Histogram EmptyHistogram(double least, double most, double unit) {
  if (!(least <= most)) return {};
  if (least == most) return {least, most, {0}};
  Histogram histogram{least, most, std::vector<std::uint64_t>(kBins)};
  if (unit > 0) {
    const double values = std::round((most - least) / unit) + 1;
    const double values_in_a_bin = std::ceil(values / static_cast<double>(kBins));
    const double bins = std::ceil(values / values_in_a_bin);
    histogram.counts.resize(static_cast<std::size_t>(bins));
    histogram.most = least + bins * values_in_a_bin * unit;
  }
  return histogram;
}

void Count(double value, Histogram* histogram) {
  const std::size_t bins = histogram->counts.size();
  // Halves, so that the range of the largest floats does not overflow.
  const double place = (value / 2 - histogram->least / 2) / (histogram->most / 2 - histogram->least / 2);
  const std::size_t bin = bins == 1 ? 0 : static_cast<std::size_t>(place * static_cast<double>(bins));
  ++histogram->counts[std::min(bin, bins - 1)];
}

template <typename Number>
Statistics LookAs(const LaidOut& tensor, bool real) {
  const OffsetTable offsets = Offsets(tensor.attrs);
  Statistics result;
  Sum sum;
  std::uint64_t finite = 0;
  Number least = std::numeric_limits<Number>::infinity();
  Number most = -least;
  ForEachElement(offsets, [&](const std::vector<unsigned int>& index, std::size_t offset) {
    const auto value = ValueAt<Number>(tensor, offset, real);
    ++result.elements;
    if (std::isnan(value)) {
      ++result.nan;
      return;
    }
    if (std::isinf(value)) {
      ++result.infinite;
      return;
    }
    ++finite;
    result.zeros += value == 0 ? 1 : 0;
    sum.Add(static_cast<double>(value));
    if (value < least) {
      least = value;
      result.least_index = index;
    }
    if (value > most) {
      most = value;
      result.most_index = index;
    }
  });
  const double none = std::numeric_limits<double>::quiet_NaN();
  const auto count = static_cast<double>(finite);
  result.least = finite > 0 ? static_cast<double>(least) : none;
  result.most = finite > 0 ? static_cast<double>(most) : none;
  result.mean = sum.Total() / count;

  Sum squares;
  result.histogram = EmptyHistogram(result.least, result.most, Unit(tensor, real));
  ForEachElement(offsets, [&](const std::vector<unsigned int>&, std::size_t offset) {
    const auto value = static_cast<double>(ValueAt<Number>(tensor, offset, real));
    if (!std::isfinite(value)) return;
    squares.Add((value - result.mean) * (value - result.mean));
    Count(value, &result.histogram);
  });
  result.deviation = std::sqrt(squares.Total() / count);
  return result;
}

std::string FormatText(const vek_host::BufAttrs& attrs) {
  const zeb::PuxDnnBufAttrsMemFormat& format = attrs.GetMemFormat();
  std::string text;
  if (format.plane_pack > 1) text += ", pack=" + std::to_string(format.plane_pack);
  if (attrs.IsStrided()) {
    text += ", line=" + std::to_string(attrs.GetLineStride()) +
            ", plane=" + std::to_string(attrs.GetPlaneStride());
  }
  if (text.empty()) text = ", dense";
  if (format.exp != 0) text += ", exp=" + std::to_string(format.exp);
  if (format.q8a) {
    text += ", zero=" + std::to_string(format.q8a_zero) + ", scale=" + NumberText(double{format.q8a_scale});
  }
  return text;
}

// --- The elements as text: each of a few, or the histogram.

bool TerminalTakesUtf8() {
  std::setlocale(LC_CTYPE, "");
  const bool is_utf8 = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  std::setlocale(LC_CTYPE, "C");
  return is_utf8;
}

// A column of `eighths` high, as seen in one line of text that begins at `below` eighths.
std::string Piece(std::size_t eighths, std::size_t below, bool utf8) {
  constexpr std::array<const char*, 9> kBlocks = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  const std::size_t part = std::min<std::size_t>(eighths > below ? eighths - below : 0, 8);
  if (utf8) return kBlocks[part];
  return part == 0 ? " " : part < 4 ? "." : part < 8 ? ":" : "#";
}

std::string Draw(const Statistics& seen, bool utf8) {
  const Histogram& histogram = seen.histogram;
  constexpr std::size_t kLines = 4;
  const std::uint64_t most = *std::max_element(histogram.counts.begin(), histogram.counts.end());
  std::string text;
  for (std::size_t line = kLines; line-- > 0;) {
    std::string row = "  ";
    for (const std::uint64_t count : histogram.counts) {
      // What is there at all shows.
      const double height = std::ceil(static_cast<double>(count) / static_cast<double>(most) * 8 * kLines);
      row += Piece(static_cast<std::size_t>(height), 8 * line, utf8);
    }
    row.erase(row.find_last_not_of(' ') + 1);
    text += row + "\n";
  }
  // The ends below, the right one under the last column where there is room.
  const std::string right = NumberText(seen.most);
  std::string ends = NumberText(seen.least);
  if (histogram.counts.size() > 1) {
    const std::size_t width = std::max(histogram.counts.size(), ends.size() + right.size() + 1);
    ends += std::string(width - ends.size() - right.size(), ' ') + right;
  }
  return text + "  " + ends + "\n";
}

void PrintValues(const LaidOut& tensor, bool real) {
  std::string text = " ";
  ForEachElement(Offsets(tensor.attrs), [&](const std::vector<unsigned int>&, std::size_t offset) {
    text += ' ';
    text += real ? NumberText(ValueAt<double>(tensor, offset, true))
                 : ElementText(tensor.type, tensor.memory + offset);
  });
  std::printf("%s\n", text.c_str());
}

void Print(const LaidOut& tensor, const Statistics& seen, bool real, bool utf8) {
  std::printf("%s: %s %s%s, %zu bytes\n", tensor.name.c_str(), ShapeText(tensor.attrs.GetDims()).c_str(),
              Name(tensor.type), FormatText(tensor.attrs).c_str(), tensor.bytes);
  const std::uint64_t finite = seen.elements - seen.nan - seen.infinite;
  if (finite > 0) {
    std::printf("  min %s at %s, max %s at %s, mean %s, standard deviation %s\n",
                NumberText(seen.least).c_str(), IndexText(seen.least_index).c_str(),
                NumberText(seen.most).c_str(), IndexText(seen.most_index).c_str(),
                NumberText(seen.mean).c_str(), NumberText(seen.deviation).c_str());
  }
  std::printf("  elements %s, zeros %s", std::to_string(seen.elements).c_str(),
              std::to_string(seen.zeros).c_str());
  if (IsFloat(tensor.type)) {
    std::printf(", NaN %s, infinite %s", std::to_string(seen.nan).c_str(),
                std::to_string(seen.infinite).c_str());
  }
  std::printf("\n");
  if (seen.elements <= kFew) {
    PrintValues(tensor, real);
  } else if (finite > 0) {
    std::fputs(Draw(seen, utf8).c_str(), stdout);
  }
}

nlohmann::ordered_json AsJson(const LaidOut& tensor, const Statistics& seen) {
  const zeb::PuxDnnBufAttrsMemFormat& format = tensor.attrs.GetMemFormat();
  nlohmann::ordered_json json = {
      {"name", tensor.name},
      {"shape", tensor.attrs.GetDims()},
      {"type", Name(tensor.type)},
      {"bytes", tensor.bytes},
      {"pack", format.plane_pack},
      {"line", tensor.attrs.GetLineStride()},
      {"plane", tensor.attrs.GetPlaneStride()},
      {"exp", format.exp},
      {"zero", nullptr},
      {"scale", nullptr},
      {"elements", seen.elements},
      {"zeros", seen.zeros},
      {"nan", seen.nan},
      {"infinite", seen.infinite},
      {"min", seen.least},
      {"min_index", seen.least_index},
      {"max", seen.most},
      {"max_index", seen.most_index},
      {"mean", seen.mean},
      {"standard_deviation", seen.deviation},
      {"histogram",
       {{"from", seen.histogram.least}, {"to", seen.histogram.most}, {"counts", seen.histogram.counts}}}};
  if (format.q8a) {
    json["zero"] = format.q8a_zero;
    json["scale"] = format.q8a_scale;
  }
  return json;
}

}  // namespace

Statistics Look(const LaidOut& tensor, bool real) {
  return FitsDouble(tensor.type) ? LookAs<double>(tensor, real) : LookAs<long double>(tensor, real);
}

CLI::App* AddInfo(CLI::App* app, InfoRequest* request) {
  CLI::App* info = app->add_subcommand("info", "Tell what is in tensors: shape, type, layout, statistics");
  info->add_option("FILE", request->files, "The tensors")->required();
  info->add_flag("--real", request->real,
                 "Fixed-point elements count as what they stand for, by exp, or zero and scale");
  info->add_option("--json", request->json,
                   "The same as JSON, a list with one entry for each tensor; - is standard output");
  return info;
}

void Info(const InfoRequest& request) {
  if (request.json == "-") KeepStandardOutputForFiles();
  const bool utf8 = TerminalTakesUtf8();
  auto list = nlohmann::ordered_json::array();
  for (const std::string& text : request.files) {
    const StoredTensor stored = OpenTensor(ParseFileArgument(text));
    const LaidOut tensor = View(stored);
    const Statistics seen = Look(tensor, request.real);
    Print(tensor, seen, request.real, utf8);
    list.push_back(AsJson(tensor, seen));
  }
  if (request.json.empty()) return;
  NewFile file(request.json);
  file.Write(list.dump(2) + "\n");
  file.Publish();
}

}  // namespace vekrun
