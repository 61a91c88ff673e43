// A boot's figures as metrics for the monitoring a fleet already runs: the Prometheus
// text exposition format (version 0.0.4) that node_exporter's textfile collector reads.
// bootstrand-analyze --openmetrics writes it from the analysis of the last boot, or
// says that this boot has nothing to show.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "analyze/analysis.h"

namespace bootstrand::analyze {

// Every series is a gauge that describes the last boot; times are in seconds. Plugins
// whose names make the same label value (they share a name, or differ only in bytes
// that are not UTF-8) are one series: the sum of their times, failed when one failed.
// A boot record's boot id labels bootstrand_boot_info.
void WriteOpenMetrics(std::ostream& output, const Analysis& analysis);

// The metrics of a boot that has no record of its own (the activator did not run, or
// stopped before its start line): which boot (`bootId`, when known) and that
// activation did not complete.
void WriteNoBootMetrics(std::ostream& output, const std::optional<std::string>& bootId);

// The quoted label value of a plugin name: bytes that are not UTF-8 become U+FFFD, as
// a label value must be UTF-8; backslash, double quote and newline are escaped.
std::string LabelValue(std::string_view name);

}  // namespace bootstrand::analyze
