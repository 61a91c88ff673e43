#include "analyze/comparison_svg.h"

#include <algorithm>
#include <array>
#include <limits>
#include <unordered_map>

#include "analyze/timeline_frame.h"

namespace bootstrand::analyze {

namespace {

constexpr int kRowHeight = 24;
constexpr int kBarHeight = 9;
constexpr const char* kBeforeColour = "#b0bec5";

enum class Change { Same, Slower, Faster, Added, Removed };

struct Style {
  Change change;
  const char* className;  // of the bar after
  const char* colour;
  const char* legend;
};

constexpr std::array<Style, 5> kStyles = {{
    {Change::Slower, "slower", "#e53935", "after: slower"},
    {Change::Faster, "faster", "#43a047", "after: faster"},
    {Change::Same, "same", "#546e7a", "after: within noise"},
    {Change::Added, "added", "#8e24aa", "after: added"},
    {Change::Removed, "removed", "", ""},
}};

const Style& StyleOf(Change change) {
  return *std::find_if(kStyles.begin(), kStyles.end(), [&](const Style& style) { return style.change == change; });
}

// One plugin name: its timing lines in both boots (more than one when plugins share
// the name), placed by its first start after, or before when it is gone.
struct Row {
  std::string name;
  Microseconds place = std::numeric_limits<Microseconds>::max();
  std::vector<const TimedPlugin*> before;
  std::vector<const TimedPlugin*> after;
  Change change = Change::Same;
  const PluginChange* times = nullptr;  // null when timed in one boot only, or its time is unknown
};

Microseconds End(const Analysis& analysis) {
  Microseconds end = analysis.finish;
  for (const TimedPlugin& plugin : analysis.timing.plugins) end = std::max(end, plugin.end);
  return end - analysis.origin;
}

std::vector<Row> Rows(const Analysis& before, const Analysis& after, const Comparison& comparison) {
  std::vector<Row> rows;
  std::unordered_map<std::string, std::size_t> index;
  auto rowOf = [&](const std::string& name) -> Row& {
    auto [at, isNew] = index.try_emplace(name, rows.size());
    if (isNew) rows.emplace_back().name = name;
    return rows[at->second];
  };
  for (const TimedPlugin& plugin : after.timing.plugins) {
    Row& row = rowOf(plugin.name);
    row.after.push_back(&plugin);
    row.place = std::min(row.place, plugin.start - after.origin);
  }
  for (const TimedPlugin& plugin : before.timing.plugins) {
    Row& row = rowOf(plugin.name);
    row.before.push_back(&plugin);
    if (row.after.empty()) row.place = std::min(row.place, plugin.start - before.origin);
  }
  for (const std::string& name : comparison.added) rowOf(name).change = Change::Added;
  for (const std::string& name : comparison.removed) rowOf(name).change = Change::Removed;
  for (const PluginChange& change : comparison.plugins) rowOf(change.name).times = &change;
  for (std::size_t i : comparison.slower) rowOf(comparison.plugins[i].name).change = Change::Slower;
  for (std::size_t i : comparison.faster) rowOf(comparison.plugins[i].name).change = Change::Faster;
  std::sort(rows.begin(), rows.end(),
            [](const Row& a, const Row& b) { return a.place != b.place ? a.place < b.place : a.name < b.name; });
  return rows;
}

std::string RowTitle(const Row& row) {
  if (row.change == Change::Added) return row.name + ": timed after only";
  if (row.change == Change::Removed) return row.name + ": timed before only";
  if (row.times == nullptr) return row.name + ": time unknown (a timing line that ends before it starts)";
  return row.name + ": " + FormatDuration(row.times->before) + " before, " + FormatDuration(row.times->after) +
         " after (" + FormatChange(row.times->Delta()) + ")";
}

}  // namespace

void WriteComparisonSvg(std::ostream& output, const Analysis& before, const Analysis& after,
                        const Comparison& comparison) {
  std::vector<Row> rows = Rows(before, after, comparison);
  std::size_t longest = 0;
  for (const Row& row : rows) longest = std::max(longest, TimelineFrame::Label(row.name).size());
  TimelineFrame frame(std::max(End(before), End(after)), longest, static_cast<int>(rows.size()), kRowHeight);

  std::string title = "Bootstrand activation compared: " + FormatDuration(comparison.before.activation) +
                      " before, " + FormatDuration(comparison.after.activation) + " after (" +
                      FormatChange(comparison.after.activation - comparison.before.activation) + "), " +
                      std::to_string(rows.size()) + " plugins";
  std::vector<LegendEntry> legend = {{kBeforeColour, "before"}};
  for (const Style& style : kStyles) {
    bool present = std::any_of(rows.begin(), rows.end(), [&](const Row& row) { return row.change == style.change; });
    if (present && style.change != Change::Removed) legend.push_back({style.colour, style.legend});
  }
  frame.WriteStart(output, title, legend);

  output << "<g class=\"bars\">\n";
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const Row& row = rows[i];
    const Style& style = StyleOf(row.change);
    int top = frame.RowTop(static_cast<int>(i)) + 3;
    output << "<g><title>" << XmlText(RowTitle(row)) << "</title><text x=\"" << frame.ChartLeft() - 6 << "\" y=\""
           << top + kBarHeight + 4 << "\" text-anchor=\"end\">" << XmlText(TimelineFrame::Label(row.name))
           << "</text>";
    double right = frame.ChartLeft();
    auto bars = [&](const std::vector<const TimedPlugin*>& plugins, const Analysis& boot, const std::string& className,
                    const char* colour, int y) {
      for (const TimedPlugin* plugin : plugins) {
        double left = frame.X(plugin->start - boot.origin);
        // A plugin passed over takes a few microseconds; keep its bar visible.
        double width = std::max(frame.X(plugin->end - boot.origin) - left, 1.0);
        right = std::max(right, left + width);
        output << "<rect class=\"bar " << className << "\" x=\"" << TimelineFrame::Number(left) << "\" y=\"" << y
               << "\" width=\"" << TimelineFrame::Number(width) << "\" height=\"" << kBarHeight << "\" fill=\""
               << colour << "\"/>";
      }
    };
    bars(row.before, before, "before", kBeforeColour, top);
    bars(row.after, after, std::string("after ") + style.className, style.colour, top + kBarHeight + 1);
    std::string change = row.times                    ? FormatChange(row.times->Delta())
                         : row.change == Change::Same ? "time unknown"
                                                      : style.className;
    output << "<text x=\"" << TimelineFrame::Number(right + 4) << "\" y=\"" << top + kBarHeight + 4
           << "\" fill=\"#555555\">" << change << "</text></g>\n";
  }
  output << "</g>\n";
  TimelineFrame::WriteEnd(output);
}

}  // namespace bootstrand::analyze
