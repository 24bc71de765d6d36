#include "graph/error.h"
#include "graph/files.h"
#include "graph/node_families.h"
#include "graph/suggest.h"
#include "io/error.h"
#include "io/formats.h"
#include "io/level_set_from_mesh.h"
#include "io/mesh.h"
#include "io/mesh_properties.h"
#include "io/mesh_transform.h"
#include "io/points.h"
#include "io/surface.h"

#include <algorithm>
#include <filesystem>
#include <iterator>

namespace tilegrid::graph {

namespace {

const std::vector<std::string> kMeshEndings = io::endingsThat(&io::FileFormat::readsMeshes);
const std::vector<std::string> kVolumeEndings = {".vdb"};
const std::vector<std::string> kStreamed = {".ply", ".obj", ".csv"};

ParameterInfo formatParameter()
{
    return {.name = "format", .type = ParameterType::kEnum, .help = "format of standard input or output, which the file - stands for; of others the name tells it",
            .defaultText = "auto", .choices = {"auto", "ply", "obj", "csv"}};
}

/// The endings of formats that can do one of these, in the order of the table.
std::vector<std::string> endingsThatAny(std::vector<bool io::FileFormat::*> const& can)
{
    std::vector<std::string> endings;
    for (io::FileFormat const& format : io::fileFormats())
        if (std::ranges::any_of(can, [&format](bool io::FileFormat::*what) { return format.*what; })) endings.push_back(format.ending);
    return endings;
}

/// The choice of `up` that is not the world's own.
constexpr int kUpZ = 1;

ParameterInfo upParameter(char const* help)
{
    return {.name = "up", .type = ParameterType::kEnum, .help = help, .defaultText = "y", .choices = {"y", "z"}, .onlyFor = kMeshEndings};
}

io::MeshTransform placementOf(Arguments const& arguments)
{
    io::MeshTransform placement;
    placement.scale = vectorOfThree(arguments, "scale", /*oneForAll*/ true).value();
    for (int axis = 0; axis < 3; ++axis)
        if (!(placement.scale[axis] > 0)) throw UsageError("'scale' is " + shortest(placement.scale[axis]) + ": give positive numbers.");
    placement.rotate = vectorOfThree(arguments, "rotate").value();
    placement.move = vectorOfThree(arguments, "move").value();
    return placement;
}

Result readMeshFile(StepContext& step)
{
    std::string const& file = step.arguments.text("file");
    if (!step.arguments.has("voxel") && !step.arguments.has("voxels"))
        throw UsageError("'voxel' is missing. Give voxel=length: size of a voxel of the band; or voxels=int: how many lie along the longest side.");
    io::TriangleMesh mesh = io::readMesh(file, step.maxBytes, step.services);
    if (step.arguments.choice("up") == kUpZ) io::turnUpFromZ(mesh);
    io::transformMesh(mesh, placementOf(step.arguments));
    if (!step.arguments.flag("attributes")) mesh.attributes.clear(), mesh.attributeCorners.clear();
    io::LevelSetOptions options = levelSetOptions(step, io::longestSide(mesh));
    const Length thickness = step.arguments.length("thickness");
    options.thickness = thickness.value * (thickness.unit == LengthUnit::kVoxels ? double(options.voxelSize) : 1.0);
    return {{std::filesystem::path(file).stem().string(), io::levelSetFromMesh(mesh, options, step.services)}};
}

Result readVolumeFile(StepContext& step)
{
    io::VdbOptions options{.structure = structureOf(step.arguments), .maxBytes = step.maxBytes, .resample = step.arguments.flag("resample")};
    if (step.arguments.has("voxel")) options.voxelSize = float(step.arguments.length("voxel").value);
    Result volumes = io::readVdb(step.arguments.text("file"), options, step.services);
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
    std::string const& file = step.arguments.text("file");
    if (io::holdsPoints(file)) return {{std::filesystem::path(file).stem().string(), io::readPoints(file, step.maxBytes)}};
    return contains(kVolumeEndings, endingOf(file)) ? readVolumeFile(step) : readMeshFile(step);
}

void reportEdges(StepContext& step, io::TriangleMesh const& surface)
{
    const io::MeshTopology edges = io::meshTopology(surface);
    std::string text = "wrote " + std::to_string(surface.triangles.size()) + " triangles, " + (edges.closed() ? "closed" : "not closed: " + io::openEdgesText(edges));
    if (edges.nonManifoldEdges > 0) text += "; " + std::to_string(edges.nonManifoldEdges) + " edges of more than two triangles";
    step.services.message(edges.closed() ? Severity::kInfo : Severity::kWarning, text + ".");
}

bool changesFlatFile(io::VdbWriteOptions const& options)
{
    return options.bandVoxels != io::VdbWriteOptions().bandVoxels || !options.name.empty() || options.half;
}

io::VdbWriteOptions vdbOptions(StepContext const& step)
{
    io::VdbWriteOptions options(step.arguments.choice("layout") == 0 ? io::VdbLayout::kFlat : io::VdbLayout::kLevels);
    options.bandVoxels = step.arguments.number("band");
    options.name = step.arguments.text("name");
    options.half = step.arguments.flag("half");
    options.maxBytes = step.maxBytes;
    if (options.layout == io::VdbLayout::kLevels && changesFlatFile(options))
        throw UsageError("'band', 'name' and 'half' are for layout=flat: layout=levels keeps everything as it is.");
    return options;
}

Result runWrite(StepContext& step)
{
    std::string const& file = step.arguments.text("file");
    Ostara::Object const& volume = *step.volume().volume;
    if (io::isPointCloud(volume)) {
        if (contains(kVolumeEndings, endingOf(file)) && changesFlatFile(vdbOptions(step)))
            throw UsageError("'band', 'name' and 'half' are for volumes, and these are points.");
        createParentFolders(file);
        io::writePoints(file, volume, step.services);
    } else if (endingOf(file) == ".csv") {
        throw io::InputError("'" + file + "' would hold points, and this is a volume. Write .vdb, or its surface as " + io::endingsText(&io::FileFormat::writesMeshes) + ".");
    } else if (contains(kVolumeEndings, endingOf(file))) {
        createParentFolders(file);
        io::writeVdb(file, volume, step.services, vdbOptions(step));
    } else {
        io::TriangleMesh surface = io::extractSurface(volume);
        io::addPropertiesAtVertices(surface, volume);
        if (step.arguments.choice("up") == kUpZ) io::turnUpToZ(surface);
        // A cancelled run must not replace a file any more.
        if (Corvid::isJobCancelled()) return {};
        createParentFolders(file);
        io::writeMesh(file, surface, step.services);
        reportEdges(step, surface);
    }
    return {};
}

NodeInfo readNode()
{
    NodeInfo node{.name = "read", .help = "reads a volume from a .vdb file, makes a level set of a closed mesh with its attributes, or reads points", .run = runRead};
    node.parameters = {
        {.name = "file", .type = ParameterType::kInputFile, .help = "the file; -: standard input; `tilegrid help formats` tells what each format holds",
         .positional = true, .endings = endingsThatAny({&io::FileFormat::readsVolumes, &io::FileFormat::readsMeshes, &io::FileFormat::readsPoints}),
         .streamed = kStreamed},
        formatParameter()};
    std::ranges::move(levelSetParameters(kMeshEndings), std::back_inserter(node.parameters));
    ParameterInfo& voxel = *std::ranges::find(node.parameters, "voxel", &ParameterInfo::name);
    voxel.help += "; of a .vdb file, the grids with other voxels are resampled to this size";
    std::ranges::copy(kVolumeEndings, std::back_inserter(voxel.onlyFor));
    voxel.ownStepFor = kVolumeEndings;
    // A .ply file without faces holds points.
    voxel.optionalFor = {".ply", ".vdb"};
    std::ranges::find(node.parameters, "voxels", &ParameterInfo::name)->optionalFor = {".ply"};
    const std::vector<ParameterInfo> others = {
        {.name = "thickness", .type = ParameterType::kLength,
         .help = "total thickness of a shell around the surface, for meshes that are not closed, as leaves and car bodies; 0: the mesh bounds a solid",
         .unit = "world units, or voxels as in 3vx", .defaultText = "0", .range = {.min = 0}, .onlyFor = kMeshEndings},
        structureParameter(),
        upParameter("axis of the mesh that points up, which is y in the world: z turns the mesh by -90 degrees around x before all else"),
        {.name = "scale", .type = ParameterType::kVector, .help = "factor of the mesh about the origin, one or three along x,y,z; before it is turned",
         .defaultText = "1", .onlyFor = kMeshEndings},
        {.name = "rotate", .type = ParameterType::kVector,
         .help = "degrees that the mesh turns about the origin: around the x axis, then y, then z, each by the right-hand rule; before it moves",
         .defaultText = "0,0,0", .onlyFor = kMeshEndings},
        {.name = "move", .type = ParameterType::kVector, .help = "way that the mesh moves: x,y,z", .unit = "world units", .defaultText = "0,0,0",
         .onlyFor = kMeshEndings},
        {.name = "attributes", .type = ParameterType::kBool, .help = "whether colours and other values at the vertices of a mesh become properties",
         .defaultText = "true", .onlyFor = kMeshEndings},
        {.name = "resample", .type = ParameterType::kBool,
         .help = "whether grids whose voxels are rotated, sheared, scaled by axes or shifted by part of a voxel are resampled to voxels along "
                 "the axes; their size, without 'voxel', is the shortest edge of those in the file",
         .defaultText = "no", .onlyFor = kVolumeEndings},
        {.name = "volume", .help = "name of the volume to take, where the file holds several; .2, .3, ... stand behind a name that comes again", .defaultText = "", .onlyFor = kVolumeEndings},
    };
    node.parameters.insert(node.parameters.end(), others.begin(), others.end());
    return node;
}

NodeInfo writeNode()
{
    NodeInfo node{.name = "write", .help = "writes a volume as .vdb, its surface with its properties as a mesh, or points; creates missing folders", .hasResult = false, .run = runWrite};
    node.inputs = {{.name = "volume", .help = "any volume; one with a signed distance for a mesh; points"}};
    node.parameters = {
        {.name = "file", .type = ParameterType::kOutputFile, .help = "the file; an old one is replaced once the new one is complete; -: standard output",
         .positional = true, .endings = endingsThatAny({&io::FileFormat::writesVolumes, &io::FileFormat::writesMeshes, &io::FileFormat::writesPoints}),
         .streamed = kStreamed},
        formatParameter(),
        {.name = "layout", .type = ParameterType::kEnum,
         .help = "flat: one grid of the finest voxels for each property, for any program; levels: one for each property and depth, which "
                 "keeps all voxel sizes and reads back as it was",
         .defaultText = "flat", .choices = {"flat", "levels"}, .onlyFor = kVolumeEndings},
        upParameter("axis of the mesh written that points up, which is y in the world"),
        {.name = "band", .type = ParameterType::kFloat,
         .help = "half width of the narrow band of a flat level set; it is filled everywhere, and beyond it the file only tells inside from outside",
         .unit = "voxels of the file", .defaultText = "3", .range = {.min = 1, .max = 1e6}, .onlyFor = kVolumeEndings},
        {.name = "name",
         .help = "name of the grid in a flat file: of the level set (left out: surface), else of the fog (density) or of the only property",
         .defaultText = "", .onlyFor = kVolumeEndings},
        {.name = "half", .type = ParameterType::kBool, .help = "values of a flat file as 16-bit floats: half the size, 11 bits of precision",
         .defaultText = "false", .onlyFor = kVolumeEndings},
    };
    return node;
}

}  // namespace

std::vector<NodeInfo> fileNodes()
{
    return {readNode(), writeNode()};
}

}  // namespace tilegrid::graph
