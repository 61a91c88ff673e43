// The frame that the analyzer's SVG timelines are drawn in, one boot or two compared:
// the document, a title, a legend, and a time axis above and below rows of bars, x in
// proportion to the time since activation start. The drawings write their own rows
// into it, each labelled with a plugin name on the left.
#pragma once

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "analyze/timing_log.h"

namespace bootstrand::analyze {

struct LegendEntry {
  std::string colour;
  std::string text;
  bool outline = false;  // an empty square with a black outline instead of a filled one
};

class TimelineFrame {
 public:
  // `span`: the activation time the chart covers; `longestLabel`: the length of the
  // longest row label (see Label), which sets the room on the left.
  TimelineFrame(Microseconds span, std::size_t longestLabel, int rows, int rowHeight);

  // The x coordinate of a moment `sinceOrigin` after activation start.
  double X(Microseconds sinceOrigin) const;
  int ChartLeft() const { return chartLeft_; }
  int RowTop(int row) const { return kChartTop + row * rowHeight_; }

  // The XML declaration, the svg element, the background, the title, the legend and
  // the time axis. The caller then writes its rows and ends with WriteEnd.
  void WriteStart(std::ostream& output, const std::string& title, const std::vector<LegendEntry>& legend) const;
  static void WriteEnd(std::ostream& output);

  // A plugin name as it fits on the left: long names are cut, never inside a UTF-8
  // sequence. Not yet escaped.
  static std::string Label(const std::string& name);
  // A coordinate with one decimal.
  static std::string Number(double value);

 private:
  static constexpr int kChartTop = 64;  // below the title, the legend and the upper axis labels

  Microseconds span_;
  int rowHeight_;
  int chartLeft_;
  int chartBottom_;
  int width_;
  int height_;
};

// Text made safe for XML character data and attribute values: markup characters
// escaped, control characters and bytes that are not UTF-8 replaced by "?".
std::string XmlText(std::string_view text);

}  // namespace bootstrand::analyze
