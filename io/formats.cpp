#include "io/formats.h"

namespace tilegrid::io {

std::vector<FileFormat> const& fileFormats()
{
    static const std::vector<FileFormat> formats = {
        {.ending = ".vdb", .readsVolumes = true, .writesVolumes = true, .readsPoints = true, .writesPoints = true,
         .help = "OpenVDB: volumes with all their properties, points with their attributes"},
        {.ending = ".obj", .readsMeshes = true, .writesMeshes = true, .help = "Wavefront: polygons, normals, colours at vertices"},
        {.ending = ".ply", .readsMeshes = true, .writesMeshes = true, .readsPoints = true, .writesPoints = true,
         .help = "Stanford: polygons, triangle strips or points, with colours of 8 bits and other values"},
        {.ending = ".stl", .readsMeshes = true, .writesMeshes = true, .help = "triangles; written in the binary form"},
        {.ending = ".off", .readsMeshes = true, .help = "Object File Format, as text: polygons, colours at vertices"},
        {.ending = ".glb", .readsMeshes = true, .writesMeshes = true, .help = "glTF 2.0, binary: triangles placed by nodes, with colours and other values"},
        {.ending = ".gltf", .readsMeshes = true, .help = "glTF 2.0, text: the same, with buffers in it or in the folder beside it"},
        {.ending = ".csv", .readsPoints = true, .writesPoints = true, .help = "points as a table, with all their values"},
    };
    return formats;
}

std::vector<std::string> endingsThat(bool FileFormat::*can)
{
    std::vector<std::string> endings;
    for (FileFormat const& format : fileFormats())
        if (format.*can) endings.push_back(format.ending);
    return endings;
}

std::string endingsText(bool FileFormat::*can)
{
    const std::vector<std::string> endings = endingsThat(can);
    std::string text;
    for (std::size_t n = 0; n < endings.size(); ++n) text += (n == 0 ? "" : n + 1 < endings.size() ? ", " : " and ") + endings[n];
    return text;
}

}  // namespace tilegrid::io
