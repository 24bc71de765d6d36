#pragma once
#include "cli/options.h"

#include <iosfwd>

namespace tilegrid::cli {

/// `tilegrid nodes [NAME...] [--json]`. \throws graph::UsageError for a name that no node has
void printNodes(Options const& options, std::ostream& results);

/// Help on the node that the words begin with, if they do; else on the command.
void printHelp(Options const& options, std::ostream& results);

}  // namespace tilegrid::cli
