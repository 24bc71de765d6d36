#pragma once
#include <string>
#include <vector>

namespace tilegrid::io {

/// A format of files. The ending of a file's name tells which one it is.
struct FileFormat {
    /// With its dot, in small letters.
    std::string ending;
    bool readsVolumes = false, writesVolumes = false;
    bool readsMeshes = false, writesMeshes = false;
    bool readsPoints = false, writesPoints = false;
    /// One line: what it is, and what it can hold.
    std::string help;
};

/// All that are known, in the order in which help lists them.
std::vector<FileFormat> const& fileFormats();

/// The endings of those that can do one thing, as in `endingsThat(&FileFormat::readsMeshes)`.
std::vector<std::string> endingsThat(bool FileFormat::*can);
/// The same as text: ".obj, .ply and .stl".
std::string endingsText(bool FileFormat::*can);

}  // namespace tilegrid::io
