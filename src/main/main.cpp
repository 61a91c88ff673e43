#include "main/startup.h"
#include "platform/standard_streams.h"
#include "plugin/plugin.h"

namespace {

// Every invocation, whatever its mode, empties the run-once marker before main runs.
// The standard streams come first: started with one of them closed, the marker would
// take its descriptor and collect the program's output.
[[maybe_unused]] const bool runOnceMarkerOpened =
    (bootstrand::EnsureStandardStreams(), bootstrand::OpenRunOnceMarker(), true);

}  // namespace

int main(int argc, char* argv[]) { return bootstrand::BootstrandMain(argc, argv); }
