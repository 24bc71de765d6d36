#pragma once
#include <string>

namespace tilegrid::graph {

/// Creates the folders that a file is to lie in. \throws io::InputError if that cannot be
void createParentFolders(std::string const& file);

}  // namespace tilegrid::graph
