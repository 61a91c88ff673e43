#include "main/startup.h"
#include "plugin/plugin.h"

namespace {

// Every invocation, whatever its mode, empties the run-once marker before main runs.
[[maybe_unused]] const bool runOnceMarkerOpened = (bootstrand::OpenRunOnceMarker(), true);

}  // namespace

int main(int argc, char* argv[]) { return bootstrand::BootstrandMain(argc, argv); }
