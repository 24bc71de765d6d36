#pragma once
#include <string>

/// What the command says about itself to other programs, made from the registry of nodes and the table of options.
namespace tilegrid::cli {

/// The manual page tilegrid(1), in roff with the man macros.
std::string manPage();

/// A script for bash that completes commands, nodes, parameters, their values, results, files and options.
std::string bashCompletion();

}  // namespace tilegrid::cli
