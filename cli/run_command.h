#pragma once
#include "TilegridOps/host/runtime.h"
#include "cli/options.h"

#include <iosfwd>

namespace tilegrid::cli {

/// Runs the chain of the words, or the file of `run`; with --save only writes it as JSON.
/// \param job  what a signal cancels
/// \throws graph::UsageError, io::InputError, graph::NodeError, graph::Cancelled
void runSteps(Options const& options, Job& job, std::ostream& results);

}  // namespace tilegrid::cli
