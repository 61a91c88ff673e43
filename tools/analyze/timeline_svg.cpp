#include "analyze/timeline_svg.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <set>

namespace bootstrand::analyze {

namespace {

constexpr int kRowHeight = 18;
constexpr int kBarHeight = 12;

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

}  // namespace

void WriteTimelineSvg(std::ostream& output, const Analysis& analysis) {
  const std::vector<TimedPlugin>& plugins = analysis.timing.plugins;
  std::size_t longest = 0;
  Microseconds end = analysis.finish;
  for (const TimedPlugin& plugin : plugins) {
    longest = std::max(longest, TimelineFrame::Label(plugin.name).size());
    end = std::max(end, plugin.end);
  }
  TimelineFrame frame(end - analysis.origin, longest, static_cast<int>(plugins.size()), kRowHeight);

  std::string title = "Bootstrand activation: " + std::to_string(plugins.size()) + " plugins";
  if (analysis.activation) title += " in " + FormatDuration(*analysis.activation);
  if (analysis.timing.kernelTime) {
    title += ", started " + std::to_string(*analysis.timing.kernelTime / 1000000) + " s after the kernel";
  }
  // The outcomes that occur, and the outline of the critical chain.
  std::set<Outcome> present(analysis.outcomes.begin(), analysis.outcomes.end());
  std::vector<LegendEntry> legend;
  for (const Style& style : kStyles) {
    if (present.contains(style.outcome)) legend.push_back({style.colour, std::string(OutcomeName(style.outcome))});
  }
  if (analysis.chain && !analysis.chain->empty()) legend.push_back({"", "critical chain", true});
  frame.WriteStart(output, title, legend);

  std::vector<bool> inChain(plugins.size(), false);
  if (analysis.chain) {
    for (std::size_t index : *analysis.chain) inChain[index] = true;
  }
  output << "<g class=\"bars\">\n";
  int row = 0;
  for (std::size_t index : analysis.byStart) {
    const TimedPlugin& plugin = plugins[index];
    Outcome outcome = analysis.outcomes[index];
    int top = frame.RowTop(row++) + (kRowHeight - kBarHeight) / 2;
    double left = frame.X(plugin.start - analysis.origin);
    // A plugin passed over takes a few microseconds; keep its bar visible.
    double barWidth = std::max(frame.X(plugin.end - analysis.origin) - left, 1.0);
    std::string name = XmlText(plugin.name);
    output << "<g><title>" << name << ": " << OutcomeName(outcome) << ", "
           << FormatDuration(plugin.end - plugin.start) << " from " << FormatDuration(plugin.start - analysis.origin)
           << "</title><text x=\"" << frame.ChartLeft() - 6 << "\" y=\"" << top + kBarHeight - 2
           << "\" text-anchor=\"end\">" << XmlText(TimelineFrame::Label(plugin.name)) << "</text><rect class=\"bar "
           << ClassName(outcome) << (inChain[index] ? " chain" : "") << "\" x=\"" << TimelineFrame::Number(left)
           << "\" y=\"" << top << "\" width=\"" << TimelineFrame::Number(barWidth) << "\" height=\"" << kBarHeight
           << "\" fill=\"" << Colour(outcome) << '"'
           << (inChain[index] ? " stroke=\"#000000\" stroke-width=\"1.5\"" : "") << "/><text x=\""
           << TimelineFrame::Number(left + barWidth + 4) << "\" y=\"" << top + kBarHeight - 2
           << "\" fill=\"#555555\">" << FormatDuration(plugin.end - plugin.start) << "</text></g>\n";
  }
  output << "</g>\n";
  TimelineFrame::WriteEnd(output);
}

}  // namespace bootstrand::analyze
