#pragma once
#include <openvdb/Grid.h>

#include <string>

namespace tilegrid::io {

/// Writes grids as one .vdb file, with the places of the grids in it, so that programs can read single ones. Equal grids
/// give equal files. \throws InputError with the system's reason if the file cannot be written; the old one is then untouched
void writeGrids(std::string const& path, openvdb::GridCPtrVec const& grids);

}  // namespace tilegrid::io
