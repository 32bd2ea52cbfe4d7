#include "qvutil/trace/svg.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string>
#include <string_view>

#include "qvutil/output/markup.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

constexpr double kWidth = 1000;
constexpr double kLeft = 150;  // for the names of lanes
constexpr double kRight = 20;
constexpr double kPlot = kWidth - kLeft - kRight;
constexpr double kRow = 20;    // for each depth of a lane
constexpr double kGap = 8;     // between lanes
constexpr double kLetter = 7;  // the width of most
constexpr double kLegendColumn = 200;
constexpr double kMargin = 10;

// Light enough for black letters, and dark enough for a white page.
constexpr std::array kColours{"#7fb2e5", "#f2a65a", "#8fca7a", "#e78a8a", "#b9a1e0",
                              "#d9c25c", "#6fc7bd", "#e59acb", "#b8a08a", "#a8b4c0"};

constexpr const char* kStyle = R"(<style>
.qv-timeline{font:12px sans-serif;fill:#222}
.qv-timeline .in{fill:#000}
.qv-timeline .process{font-weight:bold}
.qv-timeline .paper{fill:#fff}
.qv-timeline line{stroke:#888;stroke-opacity:.4}
@media(prefers-color-scheme:dark){.qv-timeline{fill:#ddd}.qv-timeline .paper{fill:#1a1a1a}}
</style>
)";

std::string number(double value) {
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), "%.1f", value);
  return text.data();
}

// The first letters of a name, if it has more than fit.
std::string fitting(std::string_view name, double width) {
  std::string letters = shown(name);
  const auto most = static_cast<std::size_t>(width / kLetter);
  if (width_of(letters) <= most) {
    return markup_text(name);
  }
  std::size_t end = 0;
  for (std::size_t count = 0; end < letters.size() && count < most; ++count) {
    do {
      ++end;
    } while (end < letters.size() && (static_cast<unsigned char>(letters[end]) & 0xc0) == 0x80);
  }
  letters.resize(end);
  return most < 2 ? "" : markup_text(letters);
}

void write_text(std::ostream& out, double x, double y, const std::string& text,
                const std::string& more = "") {
  out << "<text x=\"" << number(x) << "\" y=\"" << number(y) << "\"" << more << ">" << text
      << "</text>\n";
}

class Drawing {
 public:
  Drawing(std::ostream& out, const Picture& picture)
      : out_(out),
        picture_(picture),
        length_(static_cast<double>(std::max<std::int64_t>(1, picture.end - picture.start))) {}

  void write();

 private:
  double x_of(std::int64_t time) const {
    return kLeft + static_cast<double>(time - picture_.start) / length_ * kPlot;
  }
  const char* colour_of(const std::string& name) const;
  double lanes_height() const;
  double legend_rows() const;
  void write_axis(double y);
  void write_lane(const Lane& lane, double y);
  void write_span(const Span& span, double y);
  void write_lanes();
  void write_legend(double y);

  std::ostream& out_;
  const Picture& picture_;
  double length_;  // in ns
};

// The names of most time have a colour of their own; all others share the last one.
const char* Drawing::colour_of(const std::string& name) const {
  const auto at = static_cast<std::size_t>(
      std::find(picture_.names.begin(), picture_.names.end(), name) - picture_.names.begin());
  return kColours[std::min(at, kColours.size() - 1)];
}

double Drawing::lanes_height() const {
  double height = 0;
  std::int64_t pid = -1;
  for (const Lane& lane : picture_.lanes) {
    height += lane.pid != pid ? kRow : 0;
    height += lane.depth * kRow + kGap;
    pid = lane.pid;
  }
  return height;
}

double Drawing::legend_rows() const {
  const std::size_t names = std::min(picture_.names.size(), kColours.size());
  return std::ceil(static_cast<double>(names) / std::floor(kWidth / kLegendColumn));
}

// Lines at 1, 2 or 5 times a power of ten, at most ten of them.
void Drawing::write_axis(double y) {
  const double milliseconds = length_ / 1e6;
  double step = std::pow(10, std::floor(std::log10(milliseconds / 10)));
  for (const double factor : {2.0, 2.5, 2.0}) {
    if (milliseconds / step > 10) {
      step *= factor;
    }
  }
  const int decimals = std::max(0, static_cast<int>(-std::floor(std::log10(step) + 1e-9)));
  for (int i = 0; i * step <= milliseconds * (1 + 1e-9); ++i) {
    const double x = kLeft + i * step / milliseconds * kPlot;
    std::array<char, 64> label;
    std::snprintf(label.data(), label.size(), "%.*f%s", decimals, i * step, i == 0 ? " ms" : "");
    write_text(out_, x, y, label.data(), " text-anchor=\"middle\"");
    out_ << "<line x1=\"" << number(x) << "\" x2=\"" << number(x) << "\" y1=\"" << number(y + 5)
         << "\" y2=\"" << number(y + 5 + lanes_height()) << "\"/>\n";
  }
}

void Drawing::write_span(const Span& span, double y) {
  constexpr double kThinnest = 1;
  const double x = x_of(span.start);
  const double width = std::max(kThinnest, x_of(span.start + span.duration) - x);
  out_ << "<rect x=\"" << number(x) << "\" y=\"" << number(y) << "\" width=\"" << number(width)
       << "\" height=\"" << number(kRow - 2) << "\" fill=\"" << colour_of(span.name) << "\"><title>"
       << markup_text(span.name) << ", " << duration_text(static_cast<double>(span.duration) / 1e9);
  if (!span.arguments.empty()) {
    out_ << " " << markup_text(span.arguments);
  }
  out_ << "</title></rect>\n";
  const std::string name = fitting(span.name, width - 6);
  if (!name.empty()) {
    write_text(out_, x + 3, y + kRow - 6, name, " class=\"in\" pointer-events=\"none\"");
  }
}

void Drawing::write_lane(const Lane& lane, double y) {
  const std::string name =
      lane.tid == lane.pid ? "main thread" : "thread " + std::to_string(lane.tid);
  write_text(out_, kMargin + 10, y + kRow - 6, name);
  for (const Span& span : lane.spans) {
    write_span(span, y + span.depth * kRow);
  }
}

void Drawing::write_lanes() {
  double y = 30;
  write_axis(y - 10);
  std::int64_t pid = -1;
  for (const Lane& lane : picture_.lanes) {
    if (lane.pid != pid) {
      const std::string id = " " + std::to_string(lane.pid);
      write_text(
          out_, kMargin, y + kRow - 6,
          fitting(lane.process, kLeft - kMargin - kLetter * static_cast<double>(id.size())) + id,
          " class=\"process\"");
      y += kRow;
    }
    pid = lane.pid;
    write_lane(lane, y);
    y += lane.depth * kRow + kGap;
  }
  write_legend(y + 10);
}

void Drawing::write_legend(double y) {
  double x = kMargin;
  for (std::size_t i = 0; i < std::min(picture_.names.size(), kColours.size()); ++i) {
    if (x + kLegendColumn > kWidth) {
      x = kMargin;
      y += kRow;
    }
    const bool is_rest = i + 1 == kColours.size() && picture_.names.size() > kColours.size();
    out_ << "<rect x=\"" << number(x) << "\" y=\"" << number(y)
         << "\" width=\"12\" height=\"12\" fill=\"" << kColours[i] << "\"/>\n";
    write_text(out_, x + 18, y + 10,
               is_rest ? "others" : fitting(picture_.names[i], kLegendColumn - 24));
    x += kLegendColumn;
  }
  if (picture_.spans_left_out != 0) {
    write_text(out_, kMargin, y + kRow + 12,
               grouped(picture_.spans_left_out) +
                   " more spans: the shortest, and those of less busy threads");
  }
}

void Drawing::write() {
  const double height = 30 + lanes_height() + 10 + legend_rows() * kRow +
                        (picture_.spans_left_out != 0 ? kRow : 0) + kMargin;
  out_ << "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"qv-timeline\" viewBox=\"0 0 "
       << number(kWidth) << " " << number(height) << "\" width=\"" << number(kWidth)
       << "\" height=\"" << number(height) << "\" role=\"img\">\n<title>Timeline</title>\n"
       << kStyle << "<rect class=\"paper\" width=\"100%\" height=\"100%\"/>\n";
  write_lanes();
  out_ << "</svg>\n";
}

}  // namespace

void write_svg(std::ostream& out, const Picture& picture) { Drawing(out, picture).write(); }

}  // namespace quorvane::tool
