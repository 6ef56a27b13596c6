#include "replay_page.h"

#include <algorithm>
#include <cstdio>

#include "drawing.h"
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

std::string LogText(const char* title, const std::vector<std::string>& lines) {
  if (lines.empty()) return "";
  std::string text = std::string("<h4>") + title + "</h4>\n<pre>";
  for (const std::string& line : lines) text += Escaped(line) + "\n";
  return text + "</pre>\n";
}

std::string Drawn(const std::string& title, const vek_host::BufAttrs& attrs, const std::byte* bytes,
                  std::size_t size) {
  const std::string drawing = DrawLayout({title, TypeOf(attrs.GetMemFormat()), attrs, bytes, size});
  // A drawing's own file begins with a declaration, which a page cannot have in its middle.
  const std::size_t svg = drawing.find("<svg");
  return "<details open><summary>" + Escaped(title) + ": " + ShapeText(attrs.GetDims()) + "</summary>\n" +
         (svg == std::string::npos ? "" : drawing.substr(svg)) + "</details>\n";
}

constexpr const char* kHead = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width">
<title>vekrun replay</title>
<style>
body { font: 15px/1.5 sans-serif; max-width: 75em; margin: 2em auto; padding: 0 1em; color: #222; background: #fff; }
table { border-collapse: collapse; }
th, td { text-align: left; padding: .2em .8em; border-bottom: 1px solid #ddd; vertical-align: top; }
td.time { text-align: right; white-space: nowrap; }
tr.differs td { background: #fdecea; }
pre { background: #f4f4f4; padding: .6em; overflow-x: auto; white-space: pre-wrap; }
figure { margin: .8em 0; }
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
                        const ReplayedCall& call) {
  ++calls_;
  equal_ += call.is_equal ? 1U : 0U;
  rows_ += std::string("<tr") + (call.is_equal ? "" : " class=\"differs\"") + "><td>" + Escaped(name_) +
           "</td><td>" + function + "</td><td class=\"time\">" + Microseconds(there.nanoseconds) +
           "</td><td class=\"time\">" + Microseconds(here.nanoseconds) + "</td><td>" + Escaped(call.text) +
           "</td></tr>\n";
  if (call.is_equal) return;
  sections_ += "<h2>" + Escaped(name_) + ", " + function + "</h2>\n<p>" + Escaped(call.text) + "</p>\n";
  if (call.output) {
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
  AddRow("Configure " + std::to_string(number), there.outcome, here, call);
}

void ReplayPage::Add(const RecordedLayer& layer, const RecordedExecute& there, const RepeatedCall& here,
                     const ReplayedCall& call, const std::string& command) {
  AddRow("Execute " + std::to_string(there.number), there.outcome, here, call);
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
  if (!command.empty()) sections_ += "<h4>To repeat it</h4>\n<pre>" + Escaped(command) + "</pre>\n";
}

std::string ReplayPage::Text(const std::string& plugin) const {
  return kHead + std::string("<h1>") + std::to_string(equal_) + " of " + std::to_string(calls_) +
         " calls are equal</h1>\n<p>Repeated with " + Escaped(plugin) + " on " + ThisMachine() +
         ". Times are in "
         "microseconds.</p>\n<table>\n<tr><th>Layer</th><th>Call</th><th>There</th><th>Here</th>"
         "<th>Result</th></tr>\n" +
         rows_ + "</table>\n" + sections_ + "</body>\n</html>\n";
}

}  // namespace vekrun
