#include "analyze/timeline_frame.h"

#include <algorithm>
#include <cstdio>

namespace bootstrand::analyze {

namespace {

constexpr int kMargin = 10;
constexpr int kChartWidth = 900;
constexpr int kFooterHeight = 24;  // the lower axis labels
constexpr int kDurationRoom = 70;  // the text written after the longest bar
constexpr double kCharWidth = 6.2;  // average advance of the 11 px sans-serif labels
constexpr std::size_t kLabelLength = 48;
constexpr int kWantedTicks = 10;

// A tick step of 1, 2 or 5 times a power of ten, giving at most about kWantedTicks ticks.
Microseconds TickStep(Microseconds span) {
  Microseconds step = 1;
  for (;;) {
    for (Microseconds factor : {1, 2, 5}) {
      if (span / (step * factor) <= kWantedTicks) return step * factor;
    }
    step *= 10;
  }
}

std::string TickLabel(Microseconds time, Microseconds step) {
  char text[32];
  if (step >= 1000000) {
    std::snprintf(text, sizeof text, "%lld s", static_cast<long long>(time / 1000000));
  } else if (step >= 100000) {
    std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(time) / 1e6);
  } else if (step >= 1000) {
    std::snprintf(text, sizeof text, "%lld ms", static_cast<long long>(time / 1000));
  } else {
    std::snprintf(text, sizeof text, "%lld us", static_cast<long long>(time));
  }
  return text;
}

// Length of the UTF-8 sequence starting at `text[i]`, or 0 when it is not one.
std::size_t Utf8Length(std::string_view text, std::size_t i) {
  auto byte = static_cast<unsigned char>(text[i]);
  std::size_t length = byte < 0x80 ? 1 : (byte >> 5) == 0x6 ? 2 : (byte >> 4) == 0xe ? 3 : (byte >> 3) == 0x1e ? 4 : 0;
  if (length == 0 || i + length > text.size()) return 0;
  for (std::size_t k = 1; k < length; ++k) {
    if ((static_cast<unsigned char>(text[i + k]) >> 6) != 0x2) return 0;
  }
  return length;
}

}  // namespace

TimelineFrame::TimelineFrame(Microseconds span, std::size_t longestLabel, int rows, int rowHeight)
    : span_(std::max<Microseconds>(span, 1)), rowHeight_(rowHeight) {
  const int labelWidth =
      static_cast<int>(static_cast<double>(std::max<std::size_t>(longestLabel, 12)) * kCharWidth) + 12;
  chartLeft_ = kMargin + labelWidth;
  width_ = chartLeft_ + kChartWidth + kDurationRoom + kMargin;
  chartBottom_ = kChartTop + rows * rowHeight_ + 4;
  height_ = chartBottom_ + kFooterHeight;
}

double TimelineFrame::X(Microseconds sinceOrigin) const {
  return chartLeft_ + static_cast<double>(sinceOrigin) * kChartWidth / static_cast<double>(span_);
}

void TimelineFrame::WriteStart(std::ostream& output, const std::string& title,
                               const std::vector<LegendEntry>& legend) const {
  output << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width_ << "\" height=\"" << height_
         << "\" viewBox=\"0 0 " << width_ << ' ' << height_ << "\" font-family=\"sans-serif\" font-size=\"11\">\n"
         << "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n";
  output << "<text x=\"" << kMargin << "\" y=\"20\" font-size=\"14\" font-weight=\"bold\">" << XmlText(title)
         << "</text>\n";

  int legendX = kMargin;
  output << "<g class=\"legend\">\n";
  for (const LegendEntry& entry : legend) {
    output << "<rect x=\"" << legendX << "\" y=\"30\" width=\"10\" height=\"10\" fill=\""
           << (entry.outline ? "none\" stroke=\"#000000\" stroke-width=\"1.5" : entry.colour) << "\"/><text x=\""
           << legendX + 14 << "\" y=\"39\">" << XmlText(entry.text) << "</text>\n";
    legendX += 24 + static_cast<int>(static_cast<double>(entry.text.size()) * kCharWidth);
  }
  output << "</g>\n";

  // Grid lines over the whole chart, labels above and below it.
  Microseconds step = TickStep(span_);
  output << "<g class=\"axis\" fill=\"#555555\" text-anchor=\"middle\">\n";
  for (Microseconds tick = 0; tick <= span_; tick += step) {
    std::string at = Number(X(tick));
    std::string label = TickLabel(tick, step);
    output << "<line x1=\"" << at << "\" y1=\"" << kChartTop - 2 << "\" x2=\"" << at << "\" y2=\"" << chartBottom_
           << "\" stroke=\"#e0e0e0\"/><text x=\"" << at << "\" y=\"" << kChartTop - 6 << "\">" << label
           << "</text><text x=\"" << at << "\" y=\"" << chartBottom_ + 14 << "\">" << label << "</text>\n";
  }
  output << "</g>\n";
}

void TimelineFrame::WriteEnd(std::ostream& output) { output << "</svg>\n"; }

std::string TimelineFrame::Label(const std::string& name) {
  if (name.size() <= kLabelLength) return name;
  std::size_t cut = kLabelLength - 3;
  // Never cut inside a UTF-8 sequence.
  while (cut > 0 && (static_cast<unsigned char>(name[cut]) >> 6) == 0x2) --cut;
  return name.substr(0, cut) + "...";
}

std::string TimelineFrame::Number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

std::string XmlText(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    std::size_t length = Utf8Length(text, i);
    char c = text[i];
    if (length == 0 || (length == 1 && static_cast<unsigned char>(c) < 0x20) || c == 0x7f) {
      escaped += '?';
      ++i;
      continue;
    }
    switch (c) {
      case '<': escaped += "&lt;"; break;
      case '>': escaped += "&gt;"; break;
      case '&': escaped += "&amp;"; break;
      case '"': escaped += "&quot;"; break;
      case '\'': escaped += "&apos;"; break;
      default: escaped.append(text.substr(i, length));
    }
    i += length;
  }
  return escaped;
}

}  // namespace bootstrand::analyze
