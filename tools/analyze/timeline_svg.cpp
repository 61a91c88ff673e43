#include "analyze/timeline_svg.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <set>

namespace bootstrand::analyze {

namespace {

constexpr int kMargin = 10;
constexpr int kChartWidth = 900;
constexpr int kRowHeight = 18;
constexpr int kBarHeight = 12;
constexpr int kHeaderHeight = 64;  // title, legend and the upper axis labels
constexpr int kFooterHeight = 24;  // the lower axis labels
constexpr int kDurationRoom = 70;  // the duration written after the longest bar
constexpr double kCharWidth = 6.2;  // average advance of the 11 px sans-serif labels
constexpr std::size_t kLabelLength = 48;
constexpr int kWantedTicks = 10;

struct Style {
  Outcome outcome;
  const char* colour;
};

constexpr std::array<Style, 6> kStyles = {{
    {Outcome::Activated, "#43a047"},
    {Outcome::Failed, "#e53935"},
    {Outcome::Skipped, "#9e9e9e"},
    {Outcome::OpportunisticSkipped, "#90a4ae"},
    {Outcome::OpportunisticFailed, "#fb8c00"},
    {Outcome::Unknown, "#8e24aa"},
}};

const char* Colour(Outcome outcome) {
  for (const Style& style : kStyles) {
    if (style.outcome == outcome) return style.colour;
  }
  return "#000000";
}

// The class name of a bar: the outcome with blanks as dashes.
std::string ClassName(Outcome outcome) {
  std::string name(OutcomeName(outcome));
  std::replace(name.begin(), name.end(), ' ', '-');
  return name;
}

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

std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
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

std::string Label(const std::string& name) {
  if (name.size() <= kLabelLength) return name;
  std::size_t cut = kLabelLength - 3;
  // Never cut inside a UTF-8 sequence.
  while (cut > 0 && (static_cast<unsigned char>(name[cut]) >> 6) == 0x2) --cut;
  return name.substr(0, cut) + "...";
}

}  // namespace

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

void WriteTimelineSvg(std::ostream& output, const Analysis& analysis) {
  const std::vector<TimedPlugin>& plugins = analysis.timing.plugins;
  std::size_t longest = 0;
  Microseconds end = analysis.finish;
  for (const TimedPlugin& plugin : plugins) {
    longest = std::max(longest, Label(plugin.name).size());
    end = std::max(end, plugin.end);
  }
  Microseconds span = std::max<Microseconds>(end - analysis.origin, 1);
  const int labelWidth = static_cast<int>(static_cast<double>(std::max<std::size_t>(longest, 12)) * kCharWidth) + 12;
  const int chartLeft = kMargin + labelWidth;
  const int width = chartLeft + kChartWidth + kDurationRoom + kMargin;
  const int chartTop = kHeaderHeight;
  const int chartBottom = chartTop + static_cast<int>(plugins.size()) * kRowHeight + 4;
  const int height = chartBottom + kFooterHeight;
  auto x = [&](Microseconds time) {
    return chartLeft + static_cast<double>(time - analysis.origin) * kChartWidth / static_cast<double>(span);
  };

  output << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
         << "\" viewBox=\"0 0 " << width << ' ' << height << "\" font-family=\"sans-serif\" font-size=\"11\">\n"
         << "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n";

  std::string title = "Bootstrand activation: " + std::to_string(plugins.size()) + " plugins";
  if (analysis.timing.activationStart && analysis.timing.activationEnd) {
    title += " in " + FormatDuration(*analysis.timing.activationEnd - *analysis.timing.activationStart);
  }
  if (analysis.timing.kernelTime) {
    title += ", started " + std::to_string(*analysis.timing.kernelTime / 1000000) + " s after the kernel";
  }
  output << "<text x=\"" << kMargin << "\" y=\"20\" font-size=\"14\" font-weight=\"bold\">" << XmlText(title)
         << "</text>\n";

  // Legend: the outcomes that occur, and the outline of the critical chain.
  std::set<Outcome> present(analysis.outcomes.begin(), analysis.outcomes.end());
  int legendX = kMargin;
  output << "<g class=\"legend\">\n";
  for (const Style& style : kStyles) {
    if (!present.contains(style.outcome)) continue;
    output << "<rect x=\"" << legendX << "\" y=\"30\" width=\"10\" height=\"10\" fill=\"" << style.colour
           << "\"/><text x=\"" << legendX + 14 << "\" y=\"39\">" << OutcomeName(style.outcome) << "</text>\n";
    legendX += 24 + static_cast<int>(static_cast<double>(OutcomeName(style.outcome).size()) * kCharWidth);
  }
  if (analysis.chain && !analysis.chain->empty()) {
    output << "<rect x=\"" << legendX << "\" y=\"30\" width=\"10\" height=\"10\" fill=\"none\" stroke=\"#000000\""
           << " stroke-width=\"1.5\"/><text x=\"" << legendX + 14 << "\" y=\"39\">critical chain</text>\n";
  }
  output << "</g>\n";

  // Time axis: grid lines over the whole chart, labels above and below it.
  Microseconds step = TickStep(span);
  output << "<g class=\"axis\" fill=\"#555555\" text-anchor=\"middle\">\n";
  for (Microseconds tick = 0; tick <= span; tick += step) {
    std::string at = Number(x(analysis.origin + tick));
    std::string label = TickLabel(tick, step);
    output << "<line x1=\"" << at << "\" y1=\"" << chartTop - 2 << "\" x2=\"" << at << "\" y2=\"" << chartBottom
           << "\" stroke=\"#e0e0e0\"/><text x=\"" << at << "\" y=\"" << chartTop - 6 << "\">" << label
           << "</text><text x=\"" << at << "\" y=\"" << chartBottom + 14 << "\">" << label << "</text>\n";
  }
  output << "</g>\n";

  std::vector<bool> inChain(plugins.size(), false);
  if (analysis.chain) {
    for (std::size_t index : *analysis.chain) inChain[index] = true;
  }
  output << "<g class=\"bars\">\n";
  int row = 0;
  for (std::size_t index : analysis.byStart) {
    const TimedPlugin& plugin = plugins[index];
    Outcome outcome = analysis.outcomes[index];
    int top = chartTop + row++ * kRowHeight + (kRowHeight - kBarHeight) / 2;
    double left = x(plugin.start);
    // A plugin passed over takes a few microseconds; keep its bar visible.
    double barWidth = std::max(x(plugin.end) - left, 1.0);
    std::string name = XmlText(plugin.name);
    output << "<g><title>" << name << ": " << OutcomeName(outcome) << ", "
           << FormatDuration(plugin.end - plugin.start) << " from " << FormatDuration(plugin.start - analysis.origin)
           << "</title><text x=\"" << chartLeft - 6 << "\" y=\"" << top + kBarHeight - 2
           << "\" text-anchor=\"end\">" << XmlText(Label(plugin.name)) << "</text><rect class=\"bar "
           << ClassName(outcome) << (inChain[index] ? " chain" : "") << "\" x=\"" << Number(left) << "\" y=\"" << top
           << "\" width=\"" << Number(barWidth) << "\" height=\"" << kBarHeight << "\" fill=\"" << Colour(outcome)
           << '"' << (inChain[index] ? " stroke=\"#000000\" stroke-width=\"1.5\"" : "") << "/><text x=\""
           << Number(left + barWidth + 4) << "\" y=\"" << top + kBarHeight - 2 << "\" fill=\"#555555\">"
           << FormatDuration(plugin.end - plugin.start) << "</text></g>\n";
  }
  output << "</g>\n</svg>\n";
}

}  // namespace bootstrand::analyze
