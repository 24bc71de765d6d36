#include "io/gradient_check.h"

#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/place_tree.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

namespace tilegrid::io {

using namespace OST::TileTree3D;
using Ostara::Math::double3;

namespace {

/// What the voxels of some tiles of one depth show. Places are those of voxels in tile space.
struct Findings {
    std::int64_t voxels = 0;
    double sum = 0.0, largest = 0.0;
    std::vector<float> errors;
    std::vector<double3> steep, kinks, creases;
    void operator+=(Findings const& other)
    {
        voxels += other.voxels;
        sum += other.sum;
        largest = std::max(largest, other.largest);
        const auto append = [](auto& all, auto const& more) { all.insert(all.end(), more.begin(), more.end()); };
        append(errors, other.errors);
        append(steep, other.steep);
        append(kinks, other.kinks);
        append(creases, other.creases);
    }
};

/// A tile's values and those of the six tiles beside it that have its depth.
template <class Tr> class Cross {
public:
    using Distances = Channel<Tr, float, Tr::width, 0>;

    Cross(ConstTileAccessor<Tr> const& accessor, Distances const& distance, typename Container<Tr>::Tile const& tile)
        : own_(distance.tileData(tile.treeIndex()).data())
    {
        for (int axis = 0; axis < 3; ++axis)
            for (int side = 0; side < 2; ++side) {
                const OST::int64 step = side ? tile.tileVoxelWidth() : -1;
                const OST::int64 place = tile.tijk()[axis] + step;
                if (place < Tr::rangeMin || place > Tr::rangeMax) continue;
                int3 at = tile.tijk();
                at[axis] = static_cast<int>(place);
                const TreeIndex found = accessor.find(at.x, at.y, at.z, tile.depth());
                if (found.depth == tile.depth()) beside_[axis][side] = distance.tileData(found).data();
            }
    }
    /// Null where there is no voxel of the tile's depth. One step outside the tile along one axis at most.
    float const* at(int3 ijk) const
    {
        float const* values = own_;
        for (int axis = 0; axis < 3; ++axis)
            if (ijk[axis] < 0 || ijk[axis] >= Tr::width) {
                values = beside_[axis][ijk[axis] < 0 ? 0 : 1];
                ijk[axis] = ijk[axis] < 0 ? Tr::width - 1 : 0;
            }
        return values ? values + flatIndex(Tr::width, ijk.x, ijk.y, ijk.z) : nullptr;
    }

private:
    float const* own_;
    float const* beside_[3][2] = {};
};

/// How a field changes at a voxel: squared length of the gradient by central differences, and of the vector of what the slopes
/// on both sides of the voxel differ by.
struct Change {
    double squaredSlope = 0.0, squaredJump = 0.0;
};

/// None where a neighbour is missing.
/// \param width  of a voxel, in the unit of the values
template <class Tr> std::optional<Change> changeAt(Cross<Tr> const& cross, int3 const& ijk, double width)
{
    Change change;
    const double own = *cross.at(ijk);
    for (int axis = 0; axis < 3; ++axis) {
        int3 low = ijk, high = ijk;
        --low[axis];
        ++high[axis];
        float const *below = cross.at(low), *above = cross.at(high);
        if (!below || !above) return {};
        change.squaredSlope += std::pow((double(*above) - double(*below)) / (2.0 * width), 2);
        change.squaredJump += std::pow((double(*above) - 2.0 * own + double(*below)) / width, 2);
    }
    return change;
}

/// Adds the voxels of one tile.
template <class Tr>
void addTile(Cross<Tr> const& cross, typename Container<Tr>::Tile const& tile, double voxelSize, float band, Findings& found)
{
    const double dataWidth = tile.voxelDataWidth(), width = voxelSize * dataWidth;
    for (int flat = 0; flat < Tr::voxelCount; ++flat) {
        const int3 ijk = cubeIndex(Tr::width, flat);
        const double value = std::abs(double(*cross.at(ijk)));
        if (!tile.isLeaf(tile.voxelChildIJK(ijk.x, ijk.y, ijk.z)) || !(value < band)) continue;
        const auto change = changeAt<Tr>(cross, ijk, width);
        if (!change) continue;
        const double off = std::abs(std::sqrt(change->squaredSlope) - 1.0);
        const double error = off == off ? off : std::numeric_limits<double>::infinity();
        ++found.voxels;
        found.sum += error;
        found.largest = std::max(found.largest, error);
        found.errors.push_back(float(error));
        double3 place;
        for (int axis = 0; axis < 3; ++axis) place[axis] = tile.tijk()[axis] + ijk[axis] * dataWidth;
        if (error > GradientCheck::kSteep) found.steep.push_back(place);
        if (!(change->squaredJump > GradientCheck::kKink * GradientCheck::kKink)) continue;
        found.kinks.push_back(place);
        if (value <= width) found.creases.push_back(place);
    }
}

template <class Tr>
Findings scanDepth(Container<Tr> const& tree, Channel<Tr, float, Tr::width, 0> const& distance, int depth)
{
    constexpr OST::int64 kPart = 64;  // tiles whose sums are added in their order: the same bits for any number of threads
    const OST::int64 count = tree.tileCount(depth);
    const float band = std::abs(distance.defaultValue());
    std::vector<Findings> parts((count + kPart - 1) / kPart);
    parallel::loop(0, static_cast<OST::int64>(parts.size()), 1, [&](OST::int64 begin, OST::int64 end) {
        const ConstTileAccessor<Tr> accessor(tree);
        for (OST::int64 part = begin; part < end; ++part)
            for (OST::int64 n = part * kPart; n < std::min(count, (part + 1) * kPart); ++n)
                addTile<Tr>(Cross<Tr>(accessor, distance, tree.tile(n, depth)), tree.tile(n, depth), tree.voxelSize(), band, parts[part]);
    });
    Findings all;
    for (Findings const& part : parts) all += part;
    return all;
}

/// The one in the middle; of two, the upper.
template <class T> double median(std::vector<T>& values)
{
    const auto middle = values.begin() + std::ptrdiff_t(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return double(*middle);
}

/// \param width  of a voxel of the depth, in tile space
SteepVoxels describeSteep(std::vector<double3> const& steep, PlaceTree const& kinks, PlaceTree const& creases, double width)
{
    SteepVoxels result;
    result.voxels = std::int64_t(steep.size());
    if (steep.empty()) return result;
    const double near = SteepVoxels::kNear * width;
    std::vector<char> nearKink(steep.size());
    std::vector<double> apart(steep.size());
    parallel::loop(0, OST::int64(steep.size()), 256, [&](OST::int64 begin, OST::int64 end) {
        for (std::size_t n = std::size_t(begin); n < std::size_t(end); ++n) {
            // A limit beyond what counts as near tells one from the other.
            nearKink[n] = !kinks.empty() && kinks.distance(steep[n], 2.0 * near) <= near;
            apart[n] = creases.distance(steep[n], std::numeric_limits<double>::infinity()) / width;
        }
    });
    result.nearKink = std::count(nearKink.begin(), nearKink.end(), char(1));
    result.largestToCrease = *std::max_element(apart.begin(), apart.end());
    result.medianToCrease = median(apart);
    return result;
}

}  // namespace

template <class Tr>
std::vector<GradientCheck> measureGradient(Container<Tr> const& tree, Channel<Tr, float, Tr::width, 0> const& distance)
{
    std::vector<GradientCheck> checks;
    std::vector<std::vector<double3>> steep;
    std::vector<double3> kinks, creases;
    for (int depth = std::max(distance.minDepth(), 0); depth <= std::min(distance.depth(), Tr::maxDepth); ++depth) {
        Findings found = scanDepth<Tr>(tree, distance, depth);
        if (found.voxels == 0) continue;
        checks.push_back({depth, found.voxels, found.sum / double(found.voxels), median(found.errors), found.largest, {}});
        steep.push_back(std::move(found.steep));
        kinks.insert(kinks.end(), found.kinks.begin(), found.kinks.end());
        creases.insert(creases.end(), found.creases.begin(), found.creases.end());
    }
    const PlaceTree kinkTree(std::move(kinks)), creaseTree(std::move(creases));
    for (std::size_t n = 0; n < checks.size(); ++n)
        checks[n].steep = describeSteep(steep[n], kinkTree, creaseTree, Tr::voxelDataWidth(checks[n].depth));
    return checks;
}

template std::vector<GradientCheck> measureGradient(Container<BinaryTraits> const&, Channel<BinaryTraits, float, 4, 0> const&);
template std::vector<GradientCheck> measureGradient(Container<QuinaryTraits> const&, Channel<QuinaryTraits, float, 5, 0> const&);

}  // namespace tilegrid::io
