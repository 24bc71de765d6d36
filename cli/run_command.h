#pragma once
#include "TilegridOps/host/runtime.h"
#include "cli/options.h"

#include <iosfwd>

namespace tilegrid::cli {

/// Runs the chain of the words, or the file of `run`, once or for each frame; with --save only writes it as JSON.
/// \param job  what a signal cancels
/// \return the exit status: kDone, or that of the first frame that failed
/// \throws graph::UsageError, io::InputError, graph::NodeError, graph::Cancelled
int runSteps(Options const& options, Job& job, std::ostream& results);

}  // namespace tilegrid::cli
