#include "replay_page.h"

#include <algorithm>
#include <cstdio>

#include "drawing.h"
#include "heat_map.h"
#include "picture.h"
#include "tensor.h"

namespace vekrun {
namespace {

// Any bytes as text of a page.
std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '&') {
      escaped += "&amp;";
    } else if (c == '<') {
      escaped += "&lt;";
    } else if (c == '>') {
      escaped += "&gt;";
    } else if (c == '"') {
      escaped += "&quot;";
    } else if ((byte >= 0x20 && byte < 0x7f) || c == '\n') {
      escaped += c;
    } else {
      escaped += byte >= 0xa0 ? "&#" + std::to_string(byte) + ";" : "&#xfffd;";
    }
  }
  return escaped;
}

std::string Microseconds(std::uint64_t nanoseconds) {
  if (nanoseconds == 0) return "";
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", static_cast<double>(nanoseconds) * 1e-3);
  return text;
}

// A bar for each position of an axis, as high as it has differences. Of long axes neighbours share a bar.
std::string Bars(std::size_t rank, std::size_t axis, const std::vector<std::uint64_t>& counts) {
  constexpr std::size_t kMostBars = 256;
  constexpr std::size_t kHeight = 60;
  const std::size_t positions = (counts.size() + kMostBars - 1) / kMostBars;  // of a bar
  std::vector<std::uint64_t> bars((counts.size() + positions - 1) / positions);
  for (std::size_t i = 0; i < counts.size(); ++i) bars[i / positions] += counts[i];
  const std::uint64_t most = std::max<std::uint64_t>(1, *std::max_element(bars.begin(), bars.end()));
  const std::size_t width = std::clamp<std::size_t>(512 / bars.size(), 2, 24);
  const std::string title = SpreadAlongAxis(rank, axis, counts);
  std::string text = "<figure><svg width=\"" + std::to_string(width * bars.size()) + "\" height=\"" +
                     std::to_string(kHeight + 1) + "\" role=\"img\"><title>" + Escaped(title) +
                     "</title><rect class=\"ground\" width=\"100%\" height=\"100%\"/>";
  for (std::size_t i = 0; i < bars.size(); ++i) {
    if (bars[i] == 0) continue;
    const std::uint64_t height = std::max<std::uint64_t>(1, bars[i] * kHeight / most);
    text += "<rect x=\"" + std::to_string(i * width) + "\" y=\"" + std::to_string(kHeight - height + 1) +
            "\" width=\"" + std::to_string(width - 1) + "\" height=\"" + std::to_string(height) + "\"/>";
  }
  return text + "</svg><figcaption>" + AxisPlural(rank, axis) + " 0 to " + std::to_string(counts.size() - 1) +
         ": " + Escaped(title) + "</figcaption></figure>\n";
}

std::string Base64(const std::string& bytes) {
  static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t group = 0;
    for (std::size_t j = i; j < i + 3; ++j)
      group = group << 8 | (j < bytes.size() ? static_cast<unsigned char>(bytes[j]) : 0U);
    for (std::size_t digit = 0; digit < 4; ++digit)
      text += i + digit > bytes.size() ? '=' : kDigits[group >> (18 - 6 * digit) & 63];
  }
  return text;
}

std::string DrawnDifferences(const DifferingOutput& output) {
  constexpr std::size_t kMostPixels = 1024;
  const ElementType type = TypeOf(output.attrs.GetMemFormat());
  Tolerance bits;
  bits.bits = true;
  const HeatMap map = DrawHeatMap(
      output.attrs.GetDims(),
      AbsoluteDifferences({"", type, output.attrs, output.here.data(), output.here.size()},
                          {"", type, output.attrs, output.expected.data(), output.expected.size()}, bits),
      kMostPixels);
  return "<figure><img alt=\"The differences of output " + std::to_string(output.number) + "\" width=\"" +
         std::to_string(map.width) + "\" height=\"" + std::to_string(map.height) +
         "\" src=\"data:image/png;base64," + Base64(PngOf(map.height, map.width, map.pixels)) +
         "\"><figcaption>The planes side by side, a square for each element: dark where it is equal, from "
         "violet to "
         "yellow by the root of the difference, cyan where that is infinite or NaN</figcaption></figure>\n";
}

std::string LogText(const char* title, const std::vector<std::string>& lines) {
  if (lines.empty()) return "";
  std::string text = std::string("<h4>") + title + "</h4>\n<pre>";
  for (const std::string& line : lines) text += Escaped(line) + "\n";
  return text + "</pre>\n";
}

std::string ToRepeat(const std::string& command) {
  return command.empty() ? "" : "<h4>To repeat it</h4>\n<pre>" + Escaped(command) + "</pre>\n";
}

std::string Drawn(const std::string& title, const vek_host::BufAttrs& attrs, const std::byte* bytes,
                  std::size_t size) {
  const std::string drawing = DrawLayout({title, TypeOf(attrs.GetMemFormat()), attrs, bytes, size});
  const std::string styles = DrawingStyles();
  const std::size_t at = drawing.find(styles);  // the page has them at its beginning
  return "<details open><summary>" + Escaped(title) + ": " + ShapeText(attrs.GetDims()) + "</summary>\n" +
         drawing.substr(0, at) + drawing.substr(at + styles.size()) + "</details>\n";
}

constexpr const char* kHead = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; img-src data:; style-src 'unsafe-inline'">
<title>vekrun replay</title>
<style>
body { font: 15px/1.5 sans-serif; max-width: 75em; margin: 2em auto; padding: 0 1em; color: #222; background: #fff; }
table { border-collapse: collapse; }
th, td { text-align: left; padding: .2em .8em; border-bottom: 1px solid #ddd; vertical-align: top; }
td.time { text-align: right; white-space: nowrap; }
tr.differs td { background: #fdecea; }
pre { background: #f4f4f4; padding: .6em; overflow-x: auto; white-space: pre-wrap; }
figure { margin: .8em 0; }
figure img { max-width: 100%; image-rendering: pixelated; }
figure rect { fill: #c0392b; }
figure rect.ground { fill: #f0f0f0; }
details { margin: .5em 0; overflow-x: auto; }
</style>
</head>
<body>
)";

}  // namespace

void ReplayPage::Begin(const RecordedLayer& layer) { name_ = layer.name; }

void ReplayPage::AddRow(const std::string& function, const RecordedOutcome& there, const RepeatedCall& here,
                        const ReplayedCall& call, const std::string& command) {
  ++calls_;
  equal_ += call.is_equal ? 1U : 0U;
  rows_ += std::string("<tr") + (call.is_equal ? "" : " class=\"differs\"") + "><td>" + Escaped(name_) +
           "</td><td>" + function + "</td><td class=\"time\">" + Microseconds(there.nanoseconds) +
           "</td><td class=\"time\">" + Microseconds(here.nanoseconds) + "</td><td>" + Escaped(call.text);
  const std::string log = LogText("Log", LinesOf(here.log));
  if (call.is_equal && !(log.empty() && command.empty()))
    rows_ += "<details><summary>more</summary>" + log + ToRepeat(command) + "</details>";
  rows_ += "</td></tr>\n";
  if (call.is_equal) return;
  sections_ += "<h2>" + Escaped(name_) + ", " + function + "</h2>\n<p>" + Escaped(call.text) + "</p>\n";
  if (call.output) {
    sections_ += DrawnDifferences(*call.output);
    const auto& by_axis = call.output->comparison.beyond_by_axis;
    for (std::size_t d = 0; d < by_axis.size(); ++d) {
      if (by_axis[d].size() > 1) sections_ += Bars(by_axis.size(), d, by_axis[d]);
    }
  }
  sections_ += LogText("Log here", LinesOf(here.log));
  if (there.log) sections_ += LogText("Recorded log", *there.log);
}

void ReplayPage::Add(const RecordedConfigure& there, std::size_t number, const RepeatedCall& here,
                     const ReplayedCall& call) {
  AddRow("Configure " + std::to_string(number), there.outcome, here, call, "");
}

void ReplayPage::Add(const RecordedLayer& layer, const RecordedExecute& there, const RepeatedCall& here,
                     const ReplayedCall& call, const std::string& command) {
  AddRow("Execute " + std::to_string(there.number), there.outcome, here, call, command);
  if (call.is_equal) return;
  const RecordedConfigure* const configure = layer.ConfigureOf(there);
  for (std::size_t i = 0; configure != nullptr && there.inputs && i < there.inputs->size(); ++i) {
    if (i >= configure->inputs.size() || configure->inputs[i] == nullptr) continue;
    const auto layout = LayoutOf(*configure->inputs[i]);
    const auto bytes = BytesOf((*there.inputs)[i]);
    if (!layout || !bytes || bytes->size < layout->Bytes()) continue;
    sections_ += Drawn("input " + std::to_string(i), *layout, bytes->data.get(), bytes->size);
  }
  if (call.output) {
    const DifferingOutput& output = *call.output;
    const std::string role = "output " + std::to_string(output.number);
    sections_ += Drawn(role + " here", output.attrs, output.here.data(), output.here.size());
    sections_ += Drawn(role + " as recorded", output.attrs, output.expected.data(), output.expected.size());
  }
  sections_ += ToRepeat(command);
}

std::string ReplayPage::Text(const std::string& plugin) const {
  // Not hidden: a pattern of what is not shown fills nothing.
  return kHead +
         ("<svg width=\"0\" height=\"0\" style=\"position: absolute\" aria-hidden=\"true\">" +
          DrawingStyles()) +
         "</svg>\n<h1>" + std::to_string(equal_) + " of " + std::to_string(calls_) +
         " calls are equal</h1>\n<p>Repeated with " + Escaped(plugin) + " on " + ThisMachine() +
         ". Times are in "
         "microseconds.</p>\n<table>\n<tr><th>Layer</th><th>Call</th><th>There</th><th>Here</th>"
         "<th>Result</th></tr>\n" +
         rows_ + "</table>\n" + sections_ + "</body>\n</html>\n";
}

}  // namespace vekrun
