#pragma once
#include "TilegridOps/host/runtime.h"
#include "cli/options.h"
#include "cli/timings.h"
#include "graph/graph.h"

#include <iosfwd>

namespace tilegrid::cli {

/// Runs the graph for each frame of --frames, one after the other, and prints one JSON document in one line for each:
///
///     {"frame", "state": done | skipped | failed | cancelled, "status", "seconds", "outputs": [file...],
///      "results": [document or line of text...], "messages": [{"severity", "text"}...]}
///
/// `status` is the exit status that the frame alone would have had, `outputs` are files that are complete, and `results` is
/// what the steps print. A frame that fails does not stop those after it; a cancelled one does.
/// \return kDone, or the status of the first frame that failed: the one that its line shows, whatever came later
/// \throws graph::UsageError if no frame can be run, before any is; graph::Cancelled
int runFrames(graph::Graph const& graph, Options const& options, Job& job, std::ostream& results, Timings& timings);

}  // namespace tilegrid::cli
