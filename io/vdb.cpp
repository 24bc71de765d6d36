#include "io/vdb.h"

#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/allocation_limit.h"
#include "io/check.h"
#include "io/error.h"
#include "io/file_buffer.h"
#include "io/text.h"
#include "io/vdb_archive.h"
#include "io/vdb_grids.h"
#include "io/vdb_levels.h"
#include "io/points.h"
#include "io/vdb_points.h"
#include "io/vdb_resample.h"

#include <openvdb/io/Stream.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <filesystem>
#include <istream>
#include <limits>
#include <optional>
#include <system_error>

#include <fcntl.h>

namespace tilegrid::io {

namespace {

/// Rounding that a translation may carry, in voxels; files in which a program computed it in float reach this.
constexpr double kTranslationSlack = 1e-3;
/// No lattice is shifted further than tile space is wide.
constexpr double kLargestShift = 1 << 30;

[[noreturn]] void fail(std::string const& path, std::string const& why)
{
    throw InputError("cannot read '" + path + "': " + why);
}

[[noreturn]] void refuse(openvdb::GridBase const& grid, std::string const& why)
{
    throw InputError("grid '" + grid.getName() + "' " + why);
}

openvdb::GridPtrVecPtr gridsOf(std::string const& path)
{
    namespace fs = std::filesystem;
    std::error_code error;
    if (!fs::exists(path, error)) fail(path, "there is no such file");
    if (!fs::is_regular_file(path, error)) fail(path, "it is no regular file");
    openvdb::initialize();
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) fail(path, std::generic_category().message(errno));
    FileBuffer file(descriptor);
    std::istream in(&file);
    // The reader of grids does not look at the stream between its reads: at the end of a file that was cut off it would
    // go on with what is in its buffers. So the stream itself ends it.
    in.exceptions(std::ios::failbit | std::ios::badbit);
    try {
        return openvdb::io::Stream(in, /*delayLoad*/ false).getGrids();
    } catch (std::bad_alloc const&) {
        throw;
    } catch (std::ios_base::failure const&) {
        fail(path, "it ends too early; the file is cut off or damaged, or no .vdb file");
    } catch (std::exception const& problem) {
        parallel::endStage();  // it may be the cancellation
        fail(path, std::string(problem.what()) + "; the file is damaged, or no .vdb file");
    }
}

/// A name for the property that does not hide a component of the volume.
std::string propertyNameOf(openvdb::GridBase const& grid, bool isLevelSet)
{
    if (isLevelSet) return Ostara::Geometry::sVoxelSignedDistance.str();
    const auto text = [&grid](char const* key) {
        auto const metadata = grid.getMetadata<openvdb::StringMetadata>(key);
        return metadata ? metadata->value() : std::string();
    };
    const bool keptName = !grid.getName().empty() && text(kFlatNameKey) == grid.getName();
    const std::string own = keptName ? text(kFlatPropertyKey) : std::string();
    const std::string name = !own.empty() ? own : grid.getName().empty() ? "grid" : grid.getName();
    if (name == Ostara::Geometry::sVoxelTileTree.str() || name == Ostara::Geometry::sVoxelComp.str()
        || name == Ostara::Geometry::sPointComp.str())
        refuse(grid, "has a name that volumes need for themselves: rename it");
    if (name == Ostara::Geometry::sVoxelSignedDistance.str())
        refuse(grid,
               "has the name of the signed distance, but is no float grid of class level set: change the class or the "
               "name");
    return name;
}

bool sameMap(std::optional<AffineMap> const& a, std::optional<AffineMap> const& b)
{
    if (!a || !b) return !a && !b;
    return std::equal(&a->m[0][0], &a->m[0][0] + 9, &b->m[0][0]) && std::equal(a->t, a->t + 3, b->t);
}

/// Grids that fit into one volume, in the order of the file.
std::vector<std::vector<PlacedGrid>> grouped(std::vector<PlacedGrid> const& grids)
{
    std::vector<std::vector<PlacedGrid>> groups;
    for (PlacedGrid const& grid : grids) {
        const auto fits = [&grid](std::vector<PlacedGrid> const& group) {
            GridPlacement const& first = group.front().placement;
            if (first.voxelSize != grid.placement.voxelSize || first.centre != grid.placement.centre) return false;
            if (!sameMap(first.toWorld, grid.placement.toWorld)) return false;
            for (PlacedGrid const& other : group)
                if (other.property == grid.property) return false;
            return true;
        };
        const auto found = std::find_if(groups.begin(), groups.end(), fits);
        if (found != groups.end())
            found->push_back(grid);
        else
            groups.push_back({grid});
    }
    return groups;
}

std::string describe(std::vector<PlacedGrid> const& group)
{
    std::string text;
    for (PlacedGrid const& grid : group) text += (text.empty() ? "'" : ", '") + grid.grid->getName() + "'";
    return text + " (voxel size " + number(group.front().placement.voxelSize)
        + (group.front().placement.centre ? ", at centres)" : ")");
}

Corvid::Ptr<Ostara::Object> volumeOf(std::vector<PlacedGrid> const& group, VdbOptions const& options, Corvid::RuntimeServices const& services)
{
    Corvid::Ptr<Ostara::Object> volume = volumeFromGrids(group, options, services);
    GridPlacement const& placement = group.front().placement;
    if (!placement.toWorld) return volume;
    const float voxelSize = options.voxelSize > 0.0f ? options.voxelSize : placement.voxelSize;
    services.message(Severity::kInfo, describe(group) + " was resampled to voxels of " + number(voxelSize) + " along the axes");
    return resampledToWorld(volume, group.front().grid->getName(), *placement.toWorld, voxelSize, options, services);
}

NamedVolume levelVolume(std::string const& path, openvdb::GridPtrVec const& all, VdbOptions const& options,
                        Corvid::RuntimeServices const& services)
{
    std::vector<openvdb::GridBase::ConstPtr> grids;
    for (openvdb::GridBase::Ptr const& grid : all)
        if (grid) grids.push_back(grid);
    try {
        NamedVolume volume = volumeFromLevelGrids(grids, options);
        for (PropertyCheck const& property : checkValuesAboveChildren(*volume.volume))
            if (property.aboveChildren.wrong > 0)
                services.message(Severity::kWarning,
                                 "'" + path + "': property '" + property.name + "' has "
                                     + std::to_string(property.aboveChildren.wrong) + " of "
                                     + std::to_string(property.aboveChildren.voxels)
                                     + " voxels above children that do not hold the child's value");
        return volume;
    } catch (InputError const& error) {
        fail(path, error.what());
    }
}

/// Places a lattice along the axes. \return what is wrong with it, empty for one that tile space can have
std::string placeOnAxes(openvdb::Mat4d const& m, GridPlacement& placement)
{
    const double h = m(0, 0);
    for (int row = 0; row < 3; ++row)
        for (int column = 0; column < 3; ++column)
            if (!(std::abs(m(row, column) - (row == column ? h : 0.0)) <= 1e-6 * std::abs(h))) return "is rotated, sheared or scaled by axes";
    if (!(h > 0.0) || !std::isfinite(static_cast<float>(h)) || static_cast<float>(h) == 0.0f) return "has the voxel size " + number(h);
    placement.voxelSize = static_cast<float>(h);
    int halves = 0;
    for (int axis = 0; axis < 3; ++axis) {
        const double t = m(3, axis) / h;
        if (!(std::abs(t) <= kLargestShift)) return "lies too far from the origin for its voxel size";
        const double half = std::round(2.0 * t);
        if (std::abs(2.0 * t - half) > 2.0 * kTranslationSlack) return "is shifted by " + number(t) + " voxels along an axis";
        placement.shift[axis] = static_cast<int>(std::floor(0.5 * half));
        halves += 0.5 * half != std::floor(0.5 * half);
    }
    if (halves != 0 && halves != 3) return "is shifted by half a voxel on some axes only";
    placement.centre = halves == 3;
    return {};
}

/// Places a lattice of any affine transform in a space of its own, with voxels as wide as its shortest edge.
GridPlacement placeAskew(openvdb::GridBase const& grid, openvdb::Mat4d const& m)
{
    double shortest = std::numeric_limits<double>::infinity();
    for (int row = 0; row < 3; ++row) shortest = std::min(shortest, std::sqrt(m(row, 0) * m(row, 0) + m(row, 1) * m(row, 1) + m(row, 2) * m(row, 2)));
    GridPlacement placement;
    placement.voxelSize = static_cast<float>(shortest);
    AffineMap map;
    for (int column = 0; column < 3; ++column) {
        for (int row = 0; row < 3; ++row) map.m[row][column] = m(row, column) / double(placement.voxelSize);
        map.t[column] = m(3, column);
    }
    if (!(placement.voxelSize > 0.0f) || !std::isfinite(placement.voxelSize) || !map.inverse())
        refuse(grid, "has a transform without an inverse, or one that is not finite: its voxels have no volume");
    placement.toWorld = map;
    return placement;
}

}  // namespace

GridPlacement placementOf(openvdb::GridBase const& grid, VdbOptions const& options)
{
    auto const& transform = grid.constTransform();
    if (!transform.isLinear()) refuse(grid, "has a frustum transform: resample it to a uniform scale");
    const openvdb::Mat4d m = transform.baseMap()->getAffineMap()->getMat4();
    GridPlacement placement;
    const std::string fault = placeOnAxes(m, placement);
    if (fault.empty() && (options.voxelSize == 0.0f || options.voxelSize == placement.voxelSize)) return placement;
    if (!options.resample && options.voxelSize == 0.0f)
        refuse(grid, fault + ": give resample=yes, or voxel=LENGTH, to have it resampled to voxels along the axes");
    return placeAskew(grid, m);
}

namespace {

std::vector<NamedVolume> readVolumes(std::string const& path, VdbOptions const& options,
                                     Corvid::RuntimeServices const& services)
{
    const openvdb::GridPtrVecPtr all = gridsOf(path);
    const auto isLevel = [](openvdb::GridBase::Ptr const& grid) { return grid && isLevelGrid(*grid); };
    if (std::any_of(all->begin(), all->end(), isLevel)) return {levelVolume(path, *all, options, services)};
    std::vector<PlacedGrid> grids;
    std::vector<NamedVolume> clouds;
    for (openvdb::GridBase::Ptr const& grid : *all) {
        if (!grid) continue;
        if (isPointGrid(*grid)) {
            clouds.push_back({grid->getName(), pointsFromGrid(*grid, services)});
            continue;
        }
        if (!withGrid(*grid, [](auto const&) {})) {
            services.message(Severity::kWarning,
                             "grid '" + grid->getName() + "' is left out: nothing reads the type " + grid->type());
            continue;
        }
        const bool isLevelSet = grid->getGridClass() == openvdb::GRID_LEVEL_SET && grid->isType<openvdb::FloatGrid>();
        grids.push_back({grid, placementOf(*grid, options), propertyNameOf(*grid, isLevelSet), isLevelSet});
    }
    if (grids.empty() && clouds.empty()) fail(path, "it holds no float, double, vector or integer grid, and no points");
    const auto groups = grouped(grids);
    std::vector<NamedVolume> volumes;
    std::string list;
    for (auto const& group : groups) {
        volumes.push_back({group.front().grid->getName(), volumeOf(group, options, services)});
        list += (list.empty() ? "" : "; ") + describe(group);
    }
    if (groups.size() > 1)
        services.message(Severity::kInfo,
                         "'" + path + "' becomes " + std::to_string(groups.size())
                             + " volumes, since its grids differ in voxel size or offset, or have the same name: "
                             + list);
    std::move(clouds.begin(), clouds.end(), std::back_inserter(volumes));
    return volumes;
}

}  // namespace

std::vector<NamedVolume> readVdb(std::string const& path, VdbOptions const& options,
                                 Corvid::RuntimeServices const& services)
{
    // The library below believes every count and length of a file.
    std::optional<AllocationLimit> limit(options.maxBytes);
    try {
        return readVolumes(path, options, services);
    } catch (std::bad_alloc const&) {
        limit.reset();
        fail(path,
             "it asks for more memory than "
                 + (options.maxBytes > 0 ? "the limit of " + byteText(double(options.maxBytes)) : "there is")
                 + "; the file is damaged, or too large");
    }
}

void writeVdb(std::string const& path, Ostara::Object const& volume, Corvid::RuntimeServices const& services,
              VdbWriteOptions const& options)
{
    openvdb::initialize();
    const auto grids = isPointCloud(volume)           ? std::vector<openvdb::GridBase::Ptr>{gridFromPoints(volume, services)}
                       : options.layout == VdbLayout::kFlat ? gridsFromVolume(volume, options, services)
                                                    : levelGridsFromVolume(volume, services);
    if (grids.empty())
        throw InputError("cannot write '" + path + "': the volume has no property that a .vdb file can hold");
    writeGrids(path, openvdb::GridCPtrVec(grids.begin(), grids.end()));
}

}  // namespace tilegrid::io
