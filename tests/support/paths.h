#pragma once
#include <string>

/// Where this checkout lies. Only paths.cpp is compiled with the path, so that all other objects are the same wherever they are built.
namespace tilegrid::test {

/// The root of the repository.
std::string sourceFolder();
/// A file of examples/data.
std::string exampleFile(std::string const& name);

}  // namespace tilegrid::test
