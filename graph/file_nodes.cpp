#include "graph/error.h"
#include "graph/files.h"
#include "graph/node_families.h"
#include "graph/suggest.h"
#include "io/error.h"
#include "io/level_set_from_mesh.h"
#include "io/mesh.h"

#include <algorithm>
#include <filesystem>
#include <optional>

namespace tilegrid::graph {

namespace {

const std::vector<std::string> kMeshEndings = {".obj", ".ply", ".stl"};
const std::vector<std::string> kVolumeEndings = {".vdb"};

io::Structure structureOf(Arguments const& arguments)
{
    return arguments.choice("structure") == 0 ? io::Structure::kBinary : io::Structure::kQuinary;
}

std::optional<io::FinerBox> finerBox(Arguments const& arguments)
{
    std::vector<double> const& box = arguments.vector("inside");
    if (box.empty()) return {};
    if (box.size() != 6)
        throw UsageError("'inside' has " + std::to_string(box.size()) + " numbers: give xmin,ymin,zmin,xmax,ymax,zmax.");
    return io::FinerBox{{box[0], box[1], box[2]}, {box[3], box[4], box[5]}, int(arguments.integer("levels"))};
}

Result readMeshFile(StepContext& step)
{
    std::string const& file = step.arguments.text("file");
    const Length voxel = step.arguments.length("voxel"), band = step.arguments.length("band");
    io::LevelSetOptions options;
    options.voxelSize = float(voxel.value);
    options.bandVoxels = float(band.unit == LengthUnit::kVoxels ? band.value : band.value / voxel.value);
    options.structure = structureOf(step.arguments);
    options.maxBytes = step.maxBytes;
    options.finer = finerBox(step.arguments);
    const io::TriangleMesh mesh = io::readMesh(file, step.maxBytes, step.services);
    return {{std::filesystem::path(file).stem().string(), io::levelSetFromMesh(mesh, options, step.services)}};
}

Result readVolumeFile(StepContext& step)
{
    Result volumes = io::readVdb(step.arguments.text("file"), {structureOf(step.arguments), step.maxBytes}, step.services);
    makeNamesDistinct(volumes);
    std::string const& wanted = step.arguments.text("volume");
    if (wanted.empty()) return volumes;
    std::vector<std::string> names;
    for (io::NamedVolume& volume : volumes) {
        if (volume.name == wanted) return {std::move(volume)};
        names.push_back(volume.name);
    }
    throw io::InputError("the file has no volume '" + wanted + "'." + suggestion(wanted, names) + " It has " + listed(names) + ".");
}

Result runRead(StepContext& step)
{
    return contains(kVolumeEndings, endingOf(step.arguments.text("file"))) ? readVolumeFile(step) : readMeshFile(step);
}

Result runWrite(StepContext& step)
{
    std::string const& file = step.arguments.text("file");
    Ostara::Object const& volume = *step.volume().volume;
    if (contains(kVolumeEndings, endingOf(file))) {
        createParentFolders(file);
        const auto layout = step.arguments.choice("layout") == 0 ? io::VdbLayout::kFlat : io::VdbLayout::kLevels;
        io::writeVdb(file, volume, step.services, layout);
    } else {
        const io::TriangleMesh surface = io::extractSurface(volume);
        // A cancelled run must not replace a file any more.
        if (Corvid::isJobCancelled()) return {};
        createParentFolders(file);
        io::writeMesh(file, surface);
    }
    return {};
}

NodeInfo readNode()
{
    NodeInfo node{.name = "read", .help = "reads a volume from a .vdb file, or makes a level set of a closed mesh", .run = runRead};
    node.parameters = {
        {.name = "file", .type = ParameterType::kInputFile, .help = "the file", .positional = true, .endings = {".vdb", ".obj", ".ply", ".stl"}},
        {.name = "voxel", .type = ParameterType::kLength, .help = "size of a voxel of the band; outside of the box, if 'inside' gives one",
         .unit = "world units", .range = {.min = 0, .aboveMin = true}, .onlyFor = kMeshEndings, .voxelsAllowed = false},
        {.name = "band", .type = ParameterType::kLength, .help = "half width of the band around the surface",
         .unit = "voxels, or world units as in 0.1wu", .defaultText = "3", .range = {.min = 0, .aboveMin = true}, .onlyFor = kMeshEndings,
         .bareUnit = LengthUnit::kVoxels},
        {.name = "inside", .type = ParameterType::kVector,
         .help = "box in which the band is finer: xmin,ymin,zmin,xmax,ymax,zmax; the tree is then graded", .unit = "world units",
         .defaultText = "", .onlyFor = kMeshEndings},
        {.name = "levels", .type = ParameterType::kInt,
         .help = "how many depths finer the box is: each divides the voxel size by 2, or by 5 in the quinary structure", .defaultText = "1",
         .range = {.min = 1, .max = 26}, .onlyFor = kMeshEndings},
        {.name = "structure", .type = ParameterType::kEnum, .help = "how tiles divide: 2 or 5 children per axis; a file of levels keeps its own", .defaultText = "binary",
         .choices = {"binary", "quinary"}},
        {.name = "volume", .help = "name of the volume to take, where the file holds several; .2, .3, ... stand behind a name that comes again", .defaultText = "", .onlyFor = kVolumeEndings},
    };
    return node;
}

NodeInfo writeNode()
{
    NodeInfo node{.name = "write", .help = "writes a volume as .vdb, or its surface as a mesh; creates missing folders", .hasResult = false, .run = runWrite};
    node.inputs = {{.name = "volume", .help = "any volume; one with a signed distance for a mesh"}};
    node.parameters = {
        {.name = "file", .type = ParameterType::kOutputFile, .help = "the file; an old one is replaced once the new one is complete", .positional = true,
         .endings = {".vdb", ".obj", ".ply"}},
        {.name = "layout", .type = ParameterType::kEnum,
         .help = "flat: one grid of the finest voxels for each property, for any program; levels: one for each property and depth, which "
                 "keeps all voxel sizes and reads back as it was",
         .defaultText = "flat", .choices = {"flat", "levels"}, .onlyFor = kVolumeEndings},
    };
    return node;
}

}  // namespace

std::vector<NodeInfo> fileNodes()
{
    return {readNode(), writeNode()};
}

}  // namespace tilegrid::graph
