#include "TilegridOps/host/geometry.h"
#include "TilegridOps/merge/merge_volumes.h"
#include "TilegridOps/nodes/merge.h"
#include "io/level_set_from_mesh.h"
#include "io/level_set_from_shape.h"
#include "io/savings.h"

#include <chrono>
#include <cstdio>

/// What an adaptive merge costs and saves. Three level sets of three voxel sizes, two binary and one quinary, become one for
/// several tolerances; beside each stand the coarsest grid of one voxel size with no larger error, and the one of the finest
/// voxel size. Prints a table.

namespace {

using namespace tilegrid;
using Volume = Corvid::Ptr<Ostara::Object>;

constexpr float kBunnyVoxel = 0.0387f;
/// Of the box around all three.
constexpr double kLongestSide = 11.2;

Corvid::Array<Volume> scene()
{
    const auto options = [](float voxelSize, io::Structure structure) {
        io::LevelSetOptions made;
        made.voxelSize = voxelSize;
        made.structure = structure;
        return made;
    };
    const Corvid::RuntimeServices services;
    const auto mesh = io::readMesh(TILEGRID_BENCH_DATA "/bunny.obj", 0, services);
    return {io::levelSetFromMesh(mesh, options(kBunnyVoxel, io::Structure::kBinary), services),
            io::levelSetFromShape(io::Torus{{0.0, 2.0, 0.0}, 4.9, 0.7, 1}, options(3 * kBunnyVoxel, io::Structure::kQuinary)),
            io::levelSetFromShape(io::Box{{0.6, 5.6, -0.5}, {1.6, 6.6, 0.5}}, options(kBunnyVoxel / 4, io::Structure::kBinary))};
}

/// World length of a tolerance of 1.
double toleranceUnit(Corvid::Array<Volume> const& volumes)
{
    NativeVolumes natives;
    for (auto const& volume : volumes) natives.push_back(volume->native());
    MergeParameters parameters;
    parameters.enableAdaptivity = true;
    parameters.maxRelativeError = 1.0f;
    return decideMerge(workingVolumes(natives, false, Corvid::RuntimeServices()), parameters).maxError;
}

void reportTolerance(Corvid::Array<Volume> const& volumes, double part, double unit)
{
    const double tolerance = part * kLongestSide;
    Volume merged;
    const auto begin = std::chrono::steady_clock::now();
    Geometry::Volume::merge_volumes_internal(
        volumes, true, false, Geometry::Volume::LevelSetMode::kUnion, Geometry::Volume::FogDensityMode::kAdd, 0.5f,
        Geometry::Volume::Properties::Mode::kAutomatic, Geometry::Volume::InterpolationMode::kLinear, true, 1.0f, float(tolerance / unit),
        Geometry::Volume::AutoSubdivisionStructure::kAutomatic, merged, Corvid::RuntimeServices());
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    std::vector<Ostara::Object const*> inputs;
    for (auto const& volume : volumes) inputs.push_back(volume.get());
    const io::Savings s = io::measureSavings(*merged, inputs, io::Combination::kUnion);
    std::printf("| %.0e of the longest side: %.3g | %.2f | %.2f M | %.1f MB | %.3g | %.3g: %.1f x | %.1f x |\n", part, tolerance, seconds,
                s.merged.voxels / 1e6, s.merged.bytes / 1e6, s.merged.error, s.sameError.voxelSize, s.sameError.voxels / s.merged.voxels,
                s.finest.voxels / s.merged.voxels);
    std::fflush(stdout);
}

}  // namespace

int main()
{
    const auto volumes = scene();
    const double unit = toleranceUnit(volumes);
    std::printf("| tolerance | seconds | leaf voxels | memory | largest error | grid of that error: voxel size, voxels | finest grid, voxels |\n"
                "|---|---:|---:|---:|---:|---:|---:|\n");
    for (double part : {1e-2, 1e-3, 1e-4}) reportTolerance(volumes, part, unit);
    return 0;
}
