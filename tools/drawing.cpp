#include "drawing.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <map>
#include <set>
#include <vector>

#include "file_argument.h"
#include "new_file.h"
#include "tensor_file.h"
#include "usage_error.h"

namespace vekrun {
namespace {

// --- Sizes, in pixels.

constexpr double kCellWidth = 30;
constexpr double kCellHeight = 24;
constexpr double kPixelGap = 5;   // between the pixels of interleaved channels
constexpr double kEllipsis = 26;  // where something is left out
constexpr double kMargin = 24;
constexpr double kOffsetWidth = 50;  // the byte offsets in front of the rows
constexpr double kPlaneHeader = 40;
constexpr double kPlaneGap = 14;
constexpr double kWidestPadding = 150;
constexpr double kLetter = 7.3;   // width of a letter of the texts in 12 pixels, monospaced
constexpr double kBetween = 110;  // for the lines of two buffers

constexpr std::size_t kColours = 8;

// Reads well on light and on dark: the card brings its own ground.
constexpr const char* kStyle = R"(
  .card { fill: #ffffff; stroke: #d0d7de; }
  text { font-family: ui-monospace, "DejaVu Sans Mono", Menlo, Consolas, monospace; font-size: 12px; fill: #1f2328; }
  .name { font-size: 15px; font-weight: bold; }
  .small { font-size: 11px; }
  .muted { fill: #59636e; }
  .value { font-size: 11px; text-anchor: middle; }
  .middle { text-anchor: middle; }
  .end { text-anchor: end; }
  .cell { stroke: #59636e; stroke-width: 0.6; }
  .unused { fill: none; stroke: #818b98; stroke-width: 1; stroke-dasharray: 3 3; }
  .padding { fill: url(#hatch); stroke: #b1bac4; stroke-width: 0.6; }
  .hatch { stroke: #b1bac4; stroke-width: 1.2; }
  .plate { fill: #ffffff; }
  .example { fill: none; stroke: #cf222e; stroke-width: 2.2; }
  .mark { fill: #cf222e; }
  .line { fill: none; stroke-width: 1.2; opacity: 0.75; }
)";
constexpr const char* kDarkStyle = R"(
    .card { fill: #0d1117; stroke: #3d444d; }
    text { fill: #f0f6fc; }
    .muted { fill: #9198a1; }
    .cell { stroke: #9198a1; }
    .unused { stroke: #818b98; }
    .padding { stroke: #4d5661; }
    .hatch { stroke: #4d5661; }
    .plate { fill: #0d1117; }
    .example { stroke: #ff7b72; }
    .mark { fill: #ff7b72; }
)";
struct Tint {
  const char* light;  // of cells
  const char* dark;
  const char* line;  // of lines, on both grounds
};
constexpr std::array<Tint, kColours> kTints = {{{"#c8e1ff", "#1f4b85", "#3b82d6"},
                                                {"#ffd8b5", "#854a1a", "#d9822b"},
                                                {"#c4ecc9", "#1e6638", "#3a9a55"},
                                                {"#f2cbee", "#752f71", "#b355ac"},
                                                {"#fbeea0", "#6a5c12", "#a8941f"},
                                                {"#b9ecee", "#155f66", "#2a9aa3"},
                                                {"#ffc7ca", "#862d37", "#d4525f"},
                                                {"#d9d2f7", "#4c4292", "#7d70cf"}}};

// --- Which positions of a dimension are drawn: all, or the first ones and the last.

class Shown {
 public:
  Shown(std::size_t extent, std::size_t most) : extent_(extent) {
    const std::size_t first = extent <= most ? extent : most - 1;
    for (std::size_t i = 0; i < first; ++i) positions_.push_back(i);
    if (first < extent) positions_.push_back(extent - 1);
  }
  const std::vector<std::size_t>& Positions() const { return positions_; }
  bool Has(std::size_t position) const {
    return std::find(positions_.begin(), positions_.end(), position) != positions_.end();
  }
  bool IsAbridged() const { return positions_.size() < extent_; }
  // Whether something is left out before that position.
  bool GapBefore(std::size_t position) const { return IsAbridged() && position == positions_.back(); }
  std::string Text(const char* what) const {
    return std::to_string(positions_.size()) + " of " + std::to_string(extent_) + " " + what;
  }

 private:
  std::size_t extent_;
  std::vector<std::size_t> positions_;
};

// --- SVG.

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

std::string Pixels(double value) {
  std::array<char, 32> text{};
  const auto end = std::to_chars(text.begin(), text.end(), std::round(value * 10) / 10);
  return {text.begin(), end.ptr};
}

class Svg {
 public:
  void Rect(const std::string& classes, double x, double y, double width, double height, double radius = 0,
            const std::string& title = "") {
    body_ += "<rect class=\"" + classes + "\" x=\"" + Pixels(x) + "\" y=\"" + Pixels(y) + "\" width=\"" +
             Pixels(width) + "\" height=\"" + Pixels(height) + "\"";
    if (radius > 0) body_ += " rx=\"" + Pixels(radius) + "\"";
    body_ += title.empty() ? "/>\n" : "><title>" + Escaped(title) + "</title></rect>\n";
  }
  void Text(const std::string& classes, double x, double y, const std::string& text) {
    body_ += "<text";
    if (!classes.empty()) body_ += " class=\"" + classes + "\"";
    body_ += " x=\"" + Pixels(x) + "\" y=\"" + Pixels(y) + "\">" + Escaped(text) + "</text>\n";
  }
  // From one point to another, leaving and arriving level.
  void Curve(const std::string& classes, double x0, double y0, double x1, double y1) {
    const double bend = std::max(50.0, (x1 - x0) * 0.4);
    body_ += "<path class=\"" + classes + "\" d=\"M" + Pixels(x0) + " " + Pixels(y0) + " C" +
             Pixels(x0 + bend) + " " + Pixels(y0) + " " + Pixels(x1 - bend) + " " + Pixels(y1) + " " +
             Pixels(x1) + " " + Pixels(y1) + "\"/>\n";
  }
  void Dot(const std::string& classes, double x, double y) {
    body_ +=
        "<circle class=\"" + classes + "\" cx=\"" + Pixels(x) + "\" cy=\"" + Pixels(y) + "\" r=\"1.7\"/>\n";
  }

  std::string Document(double width, double height, const std::string& title,
                       const std::string& description) const {
    const std::string size = Pixels(width) + "\" height=\"" + Pixels(height);
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" xml:space=\"preserve\" role=\"img\" width=\"" + size +
           "\" viewBox=\"0 0 " + Pixels(width) + " " + Pixels(height) + "\">\n<title>" + Escaped(title) +
           "</title>\n<desc>" + Escaped(description) + "</desc>\n" + DrawingStyles() +
           "<rect class=\"card\" x=\"0.5\" y=\"0.5\" width=\"" + Pixels(width - 1) + "\" height=\"" +
           Pixels(height - 1) + "\" rx=\"8\"/>\n" + body_ + "</svg>\n";
  }

 private:
  std::string body_;
};

double Width(const std::string& text) {
  // Of the letters of UTF-8, the bytes that begin one.
  const auto letters = std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; });
  return static_cast<double>(letters) * kLetter;
}

// --- One buffer.

struct Point {
  double x, y;
};

using Coordinates = std::array<std::size_t, 4>;  // n, c, h, w, as the description's accessors count them

class BufferDrawing {
 public:
  explicit BufferDrawing(const LaidOut& buffer)
      : buffer_(buffer),
        attrs_(buffer.attrs),
        pack_(static_cast<std::size_t>(attrs_.GetMemFormat().plane_pack)),
        rows_(attrs_.GetHeight(), 5),
        planes_(std::size_t{attrs_.GetBatch()} * attrs_.PlanesPerItem(),
                std::min<std::size_t>(8, 24 / rows_.Positions().size())),
        pixels_(attrs_.GetWidth(), std::max<std::size_t>(3, 24 / std::min<std::size_t>(pack_, 9))),
        slots_(pack_, 9) {
    double x = 0;
    for (const std::size_t w : pixels_.Positions()) {
      if (pixels_.GapBefore(w)) x += kEllipsis;
      for (const std::size_t slot : slots_.Positions()) {
        if (slots_.GapBefore(slot)) x += kEllipsis;
        cell_x_[{w, slot}] = x;
        x += kCellWidth;
      }
      if (pack_ > 1) x += kPixelGap;
    }
    cells_width_ = x;
    const double padding = static_cast<double>(attrs_.GetLineStride() - attrs_.RowBytes()) /
                           static_cast<double>(attrs_.ElementBytes()) * kCellWidth;
    padding_width_ = std::min(padding, kWidestPadding);
    for (const std::size_t h : rows_.Positions()) {
      if (rows_.GapBefore(h)) rows_height_ += kEllipsis;
      row_y_[h] = rows_height_;
      rows_height_ += kCellHeight;
    }
    const bool has_plane_padding = PlanePadding() > 0;
    const double plane_height =
        kPlaneHeader + rows_height_ + (has_plane_padding ? kCellHeight : 0) + kPlaneGap;
    for (const std::size_t plane : planes_.Positions()) {
      if (planes_.GapBefore(plane)) planes_height_ += kEllipsis;
      plane_y_[plane] = planes_height_;
      planes_height_ += plane_height;
    }
  }

  // Of the header and the planes.
  double Width() const {
    const double cells = kOffsetWidth + cells_width_ + padding_width_;
    return std::max({cells, vekrun::Width(Subtitle()), vekrun::Width(buffer_.name) * 1.3});
  }
  double Height() const { return kHeader + planes_height_; }

  void Draw(Svg* svg, double x, double y) const {
    svg->Text("name", x, y + 14, buffer_.name);
    svg->Text("muted", x, y + 34, Subtitle());
    if (!Abridged().empty()) svg->Text("muted small", x, y + 52, Abridged());
    DrawPlanes(svg, x, y + kHeader);
  }

  // The formula of an address and the example.
  static constexpr double kFormulaHeight = 74;
  double FormulaWidth() const {
    return std::max(
        {vekrun::Width(Formula()), vekrun::Width(Strides()), vekrun::Width(Example()) + kCellWidth});
  }
  void DrawFormula(Svg* svg, double x, double y) const {
    svg->Text("", x, y + 18, Formula());
    svg->Text("muted", x, y + 38, Strides());
    svg->Rect("example", x + 1, y + 48, 14, 11, 2);
    svg->Text("", x + 24, y + 58, Example());
  }

  // Where the line of an element leaves or reaches its row, relative to where the buffer is drawn: the lines of a row
  // lie side by side, in the order of its cells. Nothing where the element is left out.
  std::optional<Point> EndOfLine(std::size_t n, std::size_t c, std::size_t h, std::size_t w,
                                 bool leaves) const {
    const std::size_t plane = n * attrs_.PlanesPerItem() + c / pack_;
    const auto cell = cell_x_.find({w, c % pack_});
    const auto row = row_y_.find(h);
    const auto plane_y = plane_y_.find(plane);
    if (cell == cell_x_.end() || row == row_y_.end() || plane_y == plane_y_.end()) return std::nullopt;
    const double place = (static_cast<double>(std::distance(cell_x_.begin(), cell)) + 0.5) /
                         static_cast<double>(cell_x_.size());
    const std::size_t last_row = planes_.Positions().back() * attrs_.GetPlaneStride() +
                                 rows_.Positions().back() * attrs_.GetLineStride();
    const double left = kOffsetWidth - 14 - vekrun::Width(std::to_string(last_row));
    const double right = kOffsetWidth + cells_width_ + padding_width_ + 3;
    return Point{leaves ? right : left,
                 kHeader + plane_y->second + kPlaneHeader + row->second + 2 + place * (kCellHeight - 4)};
  }

  // Colours an element as if it were of that channel.
  void SetChannel(const Coordinates& element, std::size_t channel) { channels_[element] = channel; }

  bool HasUnused() const { return attrs_.GetChannels() % pack_ != 0; }
  bool HasPadding() const { return attrs_.IsStrided(); }
  std::size_t Channels() const { return attrs_.GetChannels(); }

  std::string Subtitle() const {
    std::string text = ShapeText(attrs_.GetDims()) + " " + Name(buffer_.type);
    if (pack_ > 1) text += ", pack=" + std::to_string(pack_);
    if (attrs_.GetLineStride() > attrs_.RowBytes())
      text += ", line=" + std::to_string(attrs_.GetLineStride());
    if (PlanePadding() > 0) text += ", plane=" + std::to_string(attrs_.GetPlaneStride());
    if (pack_ == 1 && !attrs_.IsStrided()) text += ", dense";
    return text + ": " + std::to_string(attrs_.Bytes()) + " bytes";
  }

 private:
  static constexpr double kHeader = 60;

  std::size_t PlanePadding() const {
    return attrs_.GetPlaneStride() - std::size_t{attrs_.GetHeight()} * attrs_.GetLineStride();
  }

  std::string Abridged() const {
    std::string text;
    const auto add = [&text](const Shown& shown, const char* what) {
      if (shown.IsAbridged()) text += (text.empty() ? "drawn: " : ", ") + shown.Text(what);
    };
    add(planes_, "planes");
    add(rows_, "rows");
    add(pixels_, pack_ > 1 ? "pixels" : "columns");
    add(slots_, "channels of a pixel");
    return text;
  }

  std::string Formula() const {
    const auto number = [](std::size_t value) { return std::to_string(value); };
    const std::string element = attrs_.ElementBytes() == 1 ? "" : " × " + number(attrs_.ElementBytes());
    const bool interleaved = pack_ > 1;
    const std::string plane = interleaved ? "⌊c / " + number(pack_) + "⌋" : "c";
    const std::string item =
        attrs_.GetBatch() > 1 ? "(n × " + number(attrs_.PlanesPerItem()) + " + " + plane + ")" : plane;
    std::string pixel = "w";
    if (interleaved) pixel = "w × " + number(pack_) + " + c mod " + number(pack_);
    if (interleaved && !element.empty()) pixel = "(" + pixel + ")";
    return "byte of [n,c,h,w] = " + item + " × " + number(attrs_.GetPlaneStride()) + " + h × " +
           number(attrs_.GetLineStride()) + " + " + pixel + element;
  }
  std::string Strides() const {
    std::string text = "plane stride " + std::to_string(attrs_.GetPlaneStride()) + ", line stride " +
                       std::to_string(attrs_.GetLineStride());
    if (pack_ > 1) text += ", pack " + std::to_string(pack_);
    if (attrs_.GetBatch() > 1) text += ", " + std::to_string(attrs_.PlanesPerItem()) + " planes an item";
    return text + ", " + std::to_string(attrs_.ElementBytes()) +
           (attrs_.ElementBytes() == 1 ? " byte an element" : " bytes an element");
  }

  // An element that is drawn, and whose numbers tell the strides apart.
  Coordinates ExampleIndex() const {
    const std::size_t c = std::min<std::size_t>(pack_ > 1 ? pack_ + 1 : 1, attrs_.GetChannels() - 1);
    const auto among = [](const Shown& shown, std::size_t i) {
      return shown.Positions()[std::min(i, shown.Positions().size() - 1)];
    };
    return {0, c, among(rows_, 1), among(pixels_, 2)};
  }
  std::size_t OffsetOf(const Coordinates& index) const {
    const auto [n, c, h, w] = index;
    return (n * attrs_.PlanesPerItem() + c / pack_) * attrs_.GetPlaneStride() + h * attrs_.GetLineStride() +
           (w * pack_ + c % pack_) * attrs_.ElementBytes();
  }
  std::string Example() const {
    const auto number = [](std::size_t value) { return std::to_string(value); };
    const Coordinates index = ExampleIndex();
    const auto [n, c, h, w] = index;
    const std::string element = attrs_.ElementBytes() == 1 ? "" : " × " + number(attrs_.ElementBytes());
    std::string pixel = number(w);
    if (pack_ > 1) pixel = number(w) + " × " + number(pack_) + " + " + number(c % pack_);
    if (pack_ > 1 && !element.empty()) pixel = "(" + pixel + ")";
    return "[" + number(n) + "," + number(c) + "," + number(h) + "," + number(w) + "]: " + number(c / pack_) +
           " × " + number(attrs_.GetPlaneStride()) + " + " + number(h) + " × " +
           number(attrs_.GetLineStride()) + " + " + pixel + element + " = " + number(OffsetOf(index));
  }
  // The values' texts, short enough for cells; empty where they are not.
  std::string ValueText(std::size_t offset, std::size_t digits) const {
    const std::byte* const at = buffer_.memory + offset;
    std::string text = ElementText(buffer_.type, at);
    if (text.size() > 4 && IsFloat(buffer_.type)) {
      std::array<char, 32> rounded{};
      const auto value = ReadElement<double>(buffer_.type, at);
      const auto end = std::to_chars(rounded.begin(), rounded.end(), value, std::chars_format::general,
                                     static_cast<int>(digits));
      text = {rounded.begin(), end.ptr};
    }
    return text;
  }
  // The digits with which all values fit, or 0. All the same value would say nothing.
  std::size_t DigitsThatFit() const {
    for (const std::size_t digits : {3U, 2U, 1U}) {
      std::set<std::string> values;
      ForEachShown([&](std::size_t n, std::size_t c, std::size_t h, std::size_t w) {
        values.insert(ValueText(OffsetOf({n, c, h, w}), digits));
      });
      const bool fit = std::all_of(values.begin(), values.end(),
                                   [](const std::string& value) { return value.size() <= 4; });
      if (fit) return values.size() > 1 ? digits : 0;
    }
    return 0;
  }
  template <typename Visit>
  void ForEachShown(Visit visit) const {
    for (const std::size_t plane : planes_.Positions()) {
      const std::size_t n = plane / attrs_.PlanesPerItem();
      for (const std::size_t h : rows_.Positions()) {
        for (const std::size_t w : pixels_.Positions()) {
          for (const std::size_t slot : slots_.Positions()) {
            const std::size_t c = plane % attrs_.PlanesPerItem() * pack_ + slot;
            if (c < attrs_.GetChannels()) visit(n, c, h, w);
          }
        }
      }
    }
  }

  void DrawPlanes(Svg* svg, double x, double y) const {
    const std::size_t digits = DigitsThatFit();
    const Coordinates example = ExampleIndex();
    for (const std::size_t plane : planes_.Positions()) {
      const double plane_y = y + plane_y_.at(plane);
      if (planes_.GapBefore(plane)) svg->Text("muted", x + kOffsetWidth, plane_y - 8, "⋮");
      DrawPlaneHeader(svg, plane, x, plane_y);
      const double cells_x = x + kOffsetWidth;
      for (const std::size_t h : rows_.Positions()) {
        const double row_y = plane_y + kPlaneHeader + row_y_.at(h);
        if (rows_.GapBefore(h)) svg->Text("muted middle", cells_x + kCellWidth / 2, row_y - 8, "⋮");
        const std::size_t row_offset = plane * attrs_.GetPlaneStride() + h * attrs_.GetLineStride();
        svg->Text("muted small end", cells_x - 8, row_y + 16, std::to_string(row_offset));
        DrawRow(svg, plane, h, cells_x, row_y, digits, example);
        if (padding_width_ > 0) {
          svg->Rect("padding", cells_x + cells_width_, row_y, padding_width_, kCellHeight, 0,
                    "padding of the row");
        }
      }
      if (PlanePadding() == 0) continue;
      const double below = plane_y + kPlaneHeader + rows_height_;
      const std::string offset = std::to_string(plane * attrs_.GetPlaneStride() +
                                                std::size_t{attrs_.GetHeight()} * attrs_.GetLineStride());
      svg->Text("muted small end", cells_x - 8, below + 16, offset);
      const double width =
          std::max(cells_width_ - (pack_ > 1 && padding_width_ == 0 ? kPixelGap : 0) + padding_width_, 60.0);
      svg->Rect("padding", cells_x, below, width, kCellHeight, 0, "padding of the plane");
      const std::string label = std::to_string(PlanePadding()) + " bytes";
      svg->Rect("plate", cells_x + width / 2 - vekrun::Width(label) / 2 - 2, below + 4,
                vekrun::Width(label) + 4, 16, 3);
      svg->Text("muted small middle", cells_x + width / 2, below + 16, label);
    }
  }

  void DrawPlaneHeader(Svg* svg, std::size_t plane, double x, double y) const {
    const std::size_t first = plane % attrs_.PlanesPerItem() * pack_;
    const std::size_t last = std::min<std::size_t>(first + pack_, attrs_.GetChannels()) - 1;
    std::string text = "plane " + std::to_string(plane) + ": ";
    if (attrs_.GetBatch() > 1) text += "item " + std::to_string(plane / attrs_.PlanesPerItem()) + ", ";
    text += first == last ? "channel " + std::to_string(first)
                          : "channels " + std::to_string(first) + " to " + std::to_string(last);
    svg->Text("small", x + kOffsetWidth, y + 14, text);
    for (const std::size_t w : pixels_.Positions()) {
      const double begin = cell_x_.at({w, slots_.Positions().front()});
      const double end = cell_x_.at({w, slots_.Positions().back()}) + kCellWidth;
      svg->Text("muted small middle", x + kOffsetWidth + (begin + end) / 2, y + kPlaneHeader - 6,
                "w=" + std::to_string(w));
      if (pixels_.GapBefore(w)) {
        svg->Text("muted middle", x + kOffsetWidth + begin - kEllipsis / 2 - (pack_ > 1 ? kPixelGap / 2 : 0),
                  y + kPlaneHeader + 16, "⋯");
      }
    }
    if (padding_width_ > 0) {
      const std::string bytes = std::to_string(attrs_.GetLineStride() - attrs_.RowBytes());
      const std::string label = padding_width_ < 60 ? "+" + bytes : bytes + " bytes";
      svg->Text("muted small middle", x + kOffsetWidth + cells_width_ + padding_width_ / 2,
                y + kPlaneHeader - 6, label);
    }
  }

  void DrawRow(Svg* svg, std::size_t plane, std::size_t h, double x, double y, std::size_t digits,
               const Coordinates& example) const {
    const std::size_t n = plane / attrs_.PlanesPerItem();
    for (const auto& [place, cell_x] : cell_x_) {
      const auto [w, slot] = place;
      const std::size_t c = plane % attrs_.PlanesPerItem() * pack_ + slot;
      if (slots_.GapBefore(slot)) svg->Text("muted middle", x + cell_x - kEllipsis / 2, y + 16, "⋯");
      if (c >= attrs_.GetChannels()) {
        svg->Rect("unused", x + cell_x + 2, y + 2, kCellWidth - 4, kCellHeight - 4, 2,
                  "unused: no channel lies here");
        continue;
      }
      const std::size_t offset = OffsetOf({n, c, h, w});
      const std::string index = IndexText({static_cast<unsigned int>(n), static_cast<unsigned int>(c),
                                           static_cast<unsigned int>(h), static_cast<unsigned int>(w)});
      const auto other = channels_.find({n, c, h, w});
      const std::size_t channel = other == channels_.end() ? c : other->second;
      svg->Rect("cell c" + std::to_string(channel % kColours), x + cell_x, y, kCellWidth, kCellHeight, 0,
                index + " at byte " + std::to_string(offset) + ": " +
                    ElementText(buffer_.type, buffer_.memory + offset));
      if (digits > 0) svg->Text("value", x + cell_x + kCellWidth / 2, y + 16, ValueText(offset, digits));
    }
    if (n == example[0] && plane == example[0] * attrs_.PlanesPerItem() + example[1] / pack_ &&
        h == example[2]) {
      svg->Rect("example", x + cell_x_.at({example[3], example[1] % pack_}), y, kCellWidth, kCellHeight, 2);
    }
  }

  LaidOut buffer_;
  vek_host::BufAttrs attrs_;
  std::size_t pack_;
  Shown rows_, planes_, pixels_, slots_;
  std::map<std::pair<std::size_t, std::size_t>, double> cell_x_;  // of pixel and slot
  std::map<std::size_t, double> row_y_, plane_y_;
  std::map<Coordinates, std::size_t> channels_;  // where the colour is that of another one
  double cells_width_ = 0, padding_width_ = 0, rows_height_ = 0, planes_height_ = 0;
};

// The colours of the channels, and what hatching and dashes mean. Returns the width that it takes.
double DrawLegend(Svg* svg, double x, double y, std::size_t channels, bool has_padding, bool has_unused) {
  const double start = x;
  const auto entry = [&](const std::string& classes, const std::string& text) {
    svg->Rect(classes, x, y - 11, 16, 13, 2);
    svg->Text("muted small", x + 22, y, text);
    x += 22 + Width(text) + 12;
  };
  for (std::size_t c = 0; c < std::min(channels, kColours); ++c) {
    const bool first = c == 0;
    entry("cell c" + std::to_string(c), (first ? "channel " : "") + std::to_string(c));
  }
  if (channels > kColours) entry("cell c0", "and so on");
  if (has_padding) entry("padding", "padding");
  if (has_unused) entry("unused", "unused slot");
  return x - start;
}

void CheckDrawable(const LaidOut& buffer) {
  if (buffer.attrs.GetDims().empty() || ElementCount(buffer.attrs.GetDims()) == 0) {
    throw UsageError(buffer.name + ": a buffer without elements or dimensions makes no drawing");
  }
}

}  // namespace

std::string DrawingStyles() {
  std::string style = kStyle;
  std::string dark = kDarkStyle;
  for (std::size_t i = 0; i < kColours; ++i) {
    const std::string number = std::to_string(i);
    style.append("  .c").append(number).append(" { fill: ").append(kTints[i].light).append("; }\n");
    style.append("  .l").append(number).append(" { stroke: ").append(kTints[i].line).append("; }\n");
    style.append("  .d").append(number).append(" { fill: ").append(kTints[i].line).append("; }\n");
    dark.append("    .c").append(number).append(" { fill: ").append(kTints[i].dark).append("; }\n");
  }
  return "<style>" + style + "  @media (prefers-color-scheme: dark) {" + dark +
         "  }\n</style>\n<defs><pattern id=\"hatch\" width=\"6\" height=\"6\" "
         "patternUnits=\"userSpaceOnUse\" "
         "patternTransform=\"rotate(45)\"><path class=\"hatch\" d=\"M0 0 V6\"/></pattern></defs>\n";
}

std::string DrawLayout(const LaidOut& buffer) {
  const BufferDrawing drawing(buffer);
  Svg svg;
  drawing.Draw(&svg, kMargin, kMargin);
  const double formula_y = kMargin + drawing.Height();
  drawing.DrawFormula(&svg, kMargin, formula_y);
  const double legend_y = formula_y + BufferDrawing::kFormulaHeight + 20;
  const double legend =
      DrawLegend(&svg, kMargin, legend_y, drawing.Channels(), drawing.HasPadding(), drawing.HasUnused());
  const double width = std::max({drawing.Width(), drawing.FormulaWidth(), legend});
  return svg.Document(width + 2 * kMargin, legend_y + kMargin, "Layout of " + buffer.name,
                      drawing.Subtitle());
}

std::string DrawLayouts(const LaidOut& left, const LaidOut& right) {
  const BufferDrawing from(left);
  BufferDrawing to(right);
  const double right_x = kMargin + from.Width() + kBetween;
  Svg svg;

  // Where each value lies.
  using Places = std::vector<Coordinates>;
  const auto places_of = [](const LaidOut& buffer) {
    std::map<std::string, Places> places;
    const std::size_t C = buffer.attrs.GetChannels();
    const std::size_t H = buffer.attrs.GetHeight();
    const std::size_t W = buffer.attrs.GetWidth();
    std::size_t i = 0;
    ForEachElement(Offsets(buffer.attrs), [&](const auto&, std::size_t offset) {
      places[ElementText(buffer.type, buffer.memory + offset)].push_back(
          {i / W / H / C, i / W / H % C, i / W % H, i % W});
      ++i;
    });
    return places;
  };
  const std::map<std::string, Places> targets = places_of(right);
  for (const auto& [value, sources] : places_of(left)) {
    const auto found = targets.find(value);
    if (sources.size() > 1 || found == targets.end()) continue;
    const auto [n, c, h, w] = sources[0];
    const std::optional<Point> source = from.EndOfLine(n, c, h, w, /*leaves=*/true);
    for (const Coordinates& place : found->second) {
      to.SetChannel(place, c);
      const auto [tn, tc, th, tw] = place;
      const std::optional<Point> target = to.EndOfLine(tn, tc, th, tw, /*leaves=*/false);
      if (!source || !target) continue;
      const std::string colour = std::to_string(c % kColours);
      const Point begin = {kMargin + source->x, kMargin + source->y};
      const Point end = {right_x + target->x, kMargin + target->y};
      svg.Curve("line l" + colour, begin.x, begin.y, end.x, end.y);
      svg.Dot("d" + colour, begin.x, begin.y);
      svg.Dot("d" + colour, end.x, end.y);
    }
  }
  from.Draw(&svg, kMargin, kMargin);
  to.Draw(&svg, right_x, kMargin);

  const double formula_y = kMargin + std::max(from.Height(), to.Height());
  from.DrawFormula(&svg, kMargin, formula_y);
  const double second_x = std::max(right_x, kMargin + from.FormulaWidth() + 40);
  to.DrawFormula(&svg, second_x, formula_y);
  const double legend_y = formula_y + BufferDrawing::kFormulaHeight + 20;
  const double legend = DrawLegend(&svg, kMargin, legend_y, from.Channels(),
                                   from.HasPadding() || to.HasPadding(), from.HasUnused() || to.HasUnused());
  const double width = std::max({right_x + to.Width(), second_x + to.FormulaWidth(), kMargin + legend});
  return svg.Document(width + kMargin, legend_y + kMargin, left.name + " and " + right.name,
                      from.Subtitle() + "; " + to.Subtitle() + "; lines join equal values");
}

CLI::App* AddLayout(CLI::App* app, LayoutRequest* request) {
  CLI::App* layout = app->add_subcommand("layout", "Draw where the elements of a buffer lie");
  layout
      ->add_option("FILE", request->files, "A tensor with its layout, or two to see which elements go where")
      ->required()
      ->expected(1, 2);
  layout->add_option("--out", request->out, "The drawing, .svg")->required();
  layout->footer("For instance: vekrun layout ramp:1x6x2x3,type=u8,pack=4,line=16 --out drawing.svg");
  return layout;
}

void Layout(const LayoutRequest& request) {
  if (request.out == "-") KeepStandardOutputForFiles();
  std::vector<StoredTensor> stored;
  std::vector<std::vector<std::byte>> memory;
  std::vector<LaidOut> buffers;
  for (const std::string& text : request.files) {
    stored.push_back(OpenTensor(ParseFileArgument(text)));
    const StoredTensor& tensor = stored.back();
    memory.emplace_back(tensor.attrs.Bytes());
    Load(tensor, memory.back().data());
    buffers.push_back(
        {tensor.file.name, tensor.type, tensor.attrs, memory.back().data(), memory.back().size()});
    CheckDrawable(buffers.back());
  }
  NewFile file(request.out);
  file.Write(buffers.size() == 1 ? DrawLayout(buffers[0]) : DrawLayouts(buffers[0], buffers[1]));
  file.Publish();
}

}  // namespace vekrun
