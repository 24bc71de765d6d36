// Makes a level set of a cloud of points: spreads the points over voxels, takes the surface where the density is half of its largest
// value, and writes it as a mesh.    usage: level_set_from_points POINTS VOXEL RADIUS MESH
#include <TilegridOps/TilegridOps.h>
#include <TilegridOps/io/error.h>
#include <TilegridOps/io/mesh.h>
#include <TilegridOps/io/points.h>
#include <TilegridOps/io/surface.h>

#include <cstdio>
#include <cstdlib>

using namespace Geometry::Volume;
namespace io = tilegrid::io;

int main(int argc, char** argv)
try {
    if (argc != 5) throw io::InputError("usage: level_set_from_points POINTS VOXEL RADIUS MESH");
    const float voxel = std::strtof(argv[2], nullptr), radius = std::strtof(argv[3], nullptr);
    const Corvid::String distance = Ostara::Geometry::sVoxelSignedDistance;
    const Corvid::RuntimeServices services;  // messages go to standard error

    // Each point counts 1 and reaches `radius` world units far: about three times the distance between points.
    const auto points = io::readPoints(argv[1], /*maxBytes*/ 0);
    Corvid::Ptr<Ostara::Object> volume;
    create_empty_volume(voxel, AutoSubdivisionStructure::kBinary, volume, services);
    splat_points_into_volume(std::move(volume), *points, /*option: mean*/ false, distance, SplatKernelType::kQuadratic, radius,
                             /*least radius in voxels*/ 1, /*largest, 0: none*/ 0, /*factor*/ 1, /*depths*/ 1, volume, services);

    // The density, from 0 outside to its largest value inside, becomes a function that is 0 half way and negative inside; then its
    // distance.
    Corvid::Ptr<Ostara::Object> mapped, levelSet;
    remap_property(*volume, distance, voxel, -voxel, mapped, services);
    rebuild_level_set(std::move(mapped), distance, levelSet, services);

    const io::TriangleMesh surface = io::extractSurface(*levelSet);
    io::writeMesh(argv[4], surface);
    std::printf("%zu triangles, volume %.3g\n", surface.triangles.size(), io::enclosedVolume(surface));
} catch (io::InputError const& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
