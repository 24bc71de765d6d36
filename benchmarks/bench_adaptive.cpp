#include "TilegridOps/host/geometry.h"
#include "TilegridOps/merge/merge_volumes.h"
#include "TilegridOps/nodes/merge.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/info.h"
#include "io/level_set_from_mesh.h"
#include "io/level_set_from_shape.h"
#include "io/sample.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <random>

/// What an adaptive merge saves. Three level sets of three voxel sizes, two binary and one quinary, become one for several
/// tolerances; beside each stand the coarsest grid of one voxel size with no larger error, and the one of the finest voxel size.
///
/// The error is the largest difference from the inputs' own combined level set, over places scattered around its surface. The
/// grids of one size are not made: the error of one is that of the trilinear function of the combined level set at its nodes, and
/// its voxels are those within 3 voxels of the surface, by the surface's area.

namespace {

using namespace tilegrid;
using Ostara::Math::double3, Ostara::Math::float3;
using Volume = Corvid::Ptr<Ostara::Object>;

constexpr float kBunnyVoxel = 0.0387f;
constexpr double kGridBand = 3.0;

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
            io::levelSetFromShape(io::Torus{{0.0, 2.0, 0.0}, 5.2, 0.7, 1}, options(3 * kBunnyVoxel, io::Structure::kQuinary)),
            io::levelSetFromShape(io::Box{{-0.5, 7.2, -0.4}, {0.5, 8.2, 0.6}}, options(kBunnyVoxel / 4, io::Structure::kBinary))};
}

/// The union of level sets as their samplers read it.
class Union {
public:
    explicit Union(Corvid::Array<Volume> const& volumes)
    {
        for (auto const& volume : volumes) {
            readers_.push_back(io::readersOf(*volume, "voxel_signed_distance", io::SampleMode::kLinear));
            perVoxel_.push_back(1.0 / io::describeTiles(*volume).voxelSize);
        }
    }
    class Reader {
    public:
        explicit Reader(Union const& of) : of_(of)
        {
            for (auto const& readers : of.readers_) readers_.push_back(readers.make());
        }
        double operator()(double3 const& place) const
        {
            double least = INFINITY, value = 0;
            for (std::size_t n = 0; n < readers_.size(); ++n) {
                readers_[n]->read(float3(of_.perVoxel_[n] * place), &value);
                least = std::min(least, value);
            }
            return least;
        }

    private:
        Union const& of_;
        std::vector<std::unique_ptr<io::PlaceReader>> readers_;
    };

private:
    std::vector<io::PropertyReaders> readers_;
    std::vector<double> perVoxel_;
};

/// The largest of a measure over all places.
template <class MakeMeasure> double largest(std::vector<double3> const& places, MakeMeasure makeMeasure)
{
    constexpr OST::int64 kPart = 1024;
    std::vector<double> parts((places.size() + kPart - 1) / kPart);
    parallel::loop(0, OST::int64(parts.size()), 1, [&](OST::int64 begin, OST::int64 end) {
        const auto measure = makeMeasure();
        for (OST::int64 part = begin; part < end; ++part)
            for (std::size_t n = std::size_t(part * kPart); n < std::min(places.size(), std::size_t((part + 1) * kPart)); ++n)
                parts[std::size_t(part)] = std::max(parts[std::size_t(part)], measure(places[n]));
    });
    return *std::max_element(parts.begin(), parts.end());
}

/// Places of the scene's box within `band` of its surface, where volumes and edges are small as often as where they are large:
/// the boxes of all volumes take turns.
std::vector<double3> placesNearSurface(Corvid::Array<Volume> const& volumes, Union const& scene, double band, std::size_t count)
{
    std::vector<io::LevelSetInfo> sets;
    for (auto const& volume : volumes) sets.push_back(*io::describeVolume(*volume).levelSet);
    std::mt19937 random(5);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const Union::Reader read(scene);
    std::vector<double3> places;
    for (std::size_t n = 0; places.size() < count; ++n) {
        auto const& set = sets[n % sets.size()];
        double3 place;
        for (int axis = 0; axis < 3; ++axis) place[axis] = set.boundsMin[axis] + unit(random) * (set.boundsMax[axis] - set.boundsMin[axis]);
        if (std::abs(read(place)) < band) places.push_back(place);
    }
    return places;
}

/// Error of a grid with voxels of that size, nodes at whole multiples of it.
double gridError(std::vector<double3> const& places, Union const& scene, double voxel)
{
    return largest(places, [&] {
        return [read = Union::Reader(scene), voxel](double3 const& place) {
            double3 low, part;
            for (int axis = 0; axis < 3; ++axis) low[axis] = std::floor(place[axis] / voxel), part[axis] = place[axis] / voxel - low[axis];
            double mixed = 0;
            for (int corner = 0; corner < 8; ++corner) {
                double3 node = low;
                double weight = 1;
                for (int axis = 0; axis < 3; ++axis) {
                    node[axis] += corner >> axis & 1;
                    weight *= corner >> axis & 1 ? part[axis] : 1 - part[axis];
                }
                if (weight > 0) mixed += weight * read(voxel * node);
            }
            return std::abs(mixed - read(place));
        };
    });
}

double volumeError(std::vector<double3> const& places, Union const& scene, Volume const& volume)
{
    const Union merged({volume});
    return largest(places, [&] {
        return [read = Union::Reader(scene), other = Union::Reader(merged)](double3 const& place) { return std::abs(other(place) - read(place)); };
    });
}

double gridVoxels(double area, double voxel)
{
    return 2 * kGridBand * area / (voxel * voxel);
}

void reportTolerance(Corvid::Array<Volume> const& volumes, Union const& scene, std::vector<double3> const& places, double tolerance, double perUnit,
                     double finest, double area)
{
    Volume merged;
    const auto begin = std::chrono::steady_clock::now();
    Geometry::Volume::merge_volumes_internal(volumes, true, false, Geometry::Volume::LevelSetMode::kUnion, Geometry::Volume::FogDensityMode::kAdd,
                                             0.5f, Geometry::Volume::Properties::Mode::kAutomatic, Geometry::Volume::InterpolationMode::kLinear,
                                             true, 1.0f, float(tolerance * perUnit), Geometry::Volume::AutoSubdivisionStructure::kAutomatic, merged,
                                             Corvid::RuntimeServices());
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const io::VolumeInfo info = io::describeVolume(*merged);
    double voxels = 0, tiles = 0;
    for (auto count : info.leafVoxelsByDepth) voxels += double(count);
    for (auto count : info.tilesByDepth) tiles += double(count);
    const double error = volumeError(places, scene, merged);
    double grid = 16 * finest;
    while (grid > finest && gridError(places, scene, grid) > error) grid /= std::pow(2.0, 0.25);
    grid = std::max(grid, finest);
    std::printf("| %.3g | %.2f | %.0f | %.0f | %.1f MB | %.3g | %.3g: %.3g, %.1f x | %.1f x |\n", tolerance, seconds, tiles, voxels, double(info.bytes) / 1e6,
                error, grid, gridVoxels(area, grid), gridVoxels(area, grid) / voxels, gridVoxels(area, finest) / voxels);
}

}  // namespace

int main()
{
    const auto volumes = scene();
    const Union combined(volumes);
    NativeVolumes natives;
    for (auto const& volume : volumes) natives.push_back(volume->native());
    MergeParameters parameters;
    parameters.enableAdaptivity = true;
    parameters.maxRelativeError = 1.0f;
    const MergeDecisions decisions = decideMerge(workingVolumes(natives, false, Corvid::RuntimeServices()), parameters);
    const double finest = decisions.outputVoxelSize, longest = 11.8;
    double area = 0;
    for (auto const& volume : volumes) area += io::describeVolume(*volume).levelSet->area;
    const auto places = placesNearSurface(volumes, combined, kBunnyVoxel, 40000);
    std::printf("| tolerance | seconds | tiles | leaf voxels | memory | largest error | grid of that error: voxel, voxels, against ours | "
                "finest grid against ours |\n|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    for (double part : {1e-2, 1e-3, 1e-4})
        reportTolerance(volumes, combined, places, part * longest, 1.0 / decisions.maxError, finest, area);
    return 0;
}
