// Draws a boot as a self-contained SVG timeline: one bar per timed plugin, ordered by
// start time from top to bottom, x proportional to time since activation start,
// coloured by outcome, with the plugin's name beside it, a time axis above and below,
// a legend, and the critical chain outlined.
#pragma once

#include <ostream>

#include "analyze/analysis.h"
#include "analyze/timeline_frame.h"

namespace bootstrand::analyze {

void WriteTimelineSvg(std::ostream& output, const Analysis& analysis);

}  // namespace bootstrand::analyze
