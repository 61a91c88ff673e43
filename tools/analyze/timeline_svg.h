// Draws a boot as a self-contained SVG timeline: one bar per timed plugin, ordered by
// start time from top to bottom, x proportional to time since activation start,
// coloured by outcome, with the plugin's name beside it, a time axis above and below,
// a legend, and the critical chain outlined.
#pragma once

#include <ostream>
#include <string>
#include <string_view>

#include "analyze/analysis.h"

namespace bootstrand::analyze {

void WriteTimelineSvg(std::ostream& output, const Analysis& analysis);

// Text made safe for XML character data and attribute values: markup characters
// escaped, control characters and bytes that are not UTF-8 replaced by "?".
std::string XmlText(std::string_view text);

}  // namespace bootstrand::analyze
