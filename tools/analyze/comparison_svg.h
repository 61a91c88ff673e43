// Draws two boots on one time axis as a self-contained SVG: one row per plugin name,
// its bar in the boot before above its bar in the boot after, each measured from its
// own boot's activation start, the later bar coloured by the change, so that a plugin
// that moved or grew stands out.
#pragma once

#include <ostream>

#include "analyze/analysis.h"
#include "analyze/comparison.h"

namespace bootstrand::analyze {

// `comparison` is Compare(before, after, ...).
void WriteComparisonSvg(std::ostream& output, const Analysis& before, const Analysis& after,
                        const Comparison& comparison);

}  // namespace bootstrand::analyze
