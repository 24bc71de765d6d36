// Reads a closed mesh, merges it with two shapes of other voxel sizes into one adaptive volume, and writes that as a .vdb file, a
// mesh and a picture.    usage: adaptive_merge MESH FOLDER
#include <TilegridOps/TilegridOps.h>
#include <TilegridOps/io/error.h>
#include <TilegridOps/io/info.h>
#include <TilegridOps/io/level_set_from_mesh.h>
#include <TilegridOps/io/level_set_from_shape.h>
#include <TilegridOps/io/mesh.h>
#include <TilegridOps/io/render.h>
#include <TilegridOps/io/surface.h>
#include <TilegridOps/io/vdb.h>

#include <cstdio>

using namespace Geometry::Volume;
namespace io = tilegrid::io;

int main(int argc, char** argv)
try {
    if (argc != 3) throw io::InputError("usage: adaptive_merge MESH FOLDER");
    const std::string mesh = argv[1], folder = argv[2];
    const Corvid::RuntimeServices services;  // messages go to standard error

    // A mesh and two shapes, each in voxels of its own size. Lengths are in world units.
    const auto bunny = io::levelSetFromMesh(io::readMesh(mesh, /*maxBytes*/ 0, services), {.voxelSize = 0.0774f}, services);
    const auto ring = io::levelSetFromShape(io::Torus{.centre = {0, 2, 0}, .radius = 4.9, .tube = 0.7}, {.voxelSize = 0.2322f});
    const auto cube = io::levelSetFromShape(io::Box{{0.6, 5.6, -0.5}, {1.6, 6.6, 0.5}}, {.voxelSize = 0.01935f});

    // One volume: voxels are as fine as the cube's where the surface needs it, and coarse elsewhere.
    Corvid::Ptr<Ostara::Object> merged;
    merge_volumes_internal({bunny, ring, cube}, /*enable*/ true, /*invert_order*/ false, LevelSetMode::kUnion, FogDensityMode::kAdd,
                           /*alpha*/ 0.5f, Properties::Mode::kAutomatic, InterpolationMode::kLinear, /*enable_adaptivity*/ true,
                           /*adaptive_voxel_scale*/ 1, /*max_relative_error*/ 0.2f, AutoSubdivisionStructure::kAutomatic, merged, services);
    const io::VolumeInfo info = io::describeVolume(*merged);
    std::printf("%s", io::toText(info).c_str());

    // All voxel sizes in a .vdb file, the surface as a closed mesh, and a picture with a colour for each voxel size.
    io::writeVdb(folder + "/merged.vdb", *merged, services, io::VdbLayout::kLevels);
    const io::TriangleMesh surface = io::extractSurface(*merged);
    io::writeMesh(folder + "/merged.ply", surface);
    io::writePng(folder + "/merged.png", io::renderImage(*merged, {.size = 800, .colour = io::SurfaceColour::kDepth}));
    std::printf("%zu triangles, %s\n", surface.triangles.size(), io::meshTopology(surface).closed() ? "closed" : "open");
} catch (io::InputError const& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
