#include "io/gradient_check.h"

#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/parallel.h"

#include <cmath>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

struct Sum {
    std::int64_t voxels = 0;
    double errors = 0.0, largest = 0.0;
    void operator+=(Sum const& other)
    {
        voxels += other.voxels;
        errors += other.errors;
        largest = std::max(largest, other.largest);
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

/// Adds the voxels of one tile.
/// \param step  world distance between the neighbours on both sides of a voxel
template <class Tr>
void addTile(Cross<Tr> const& cross, typename Container<Tr>::Tile const& tile, double step, float band, Sum& sum)
{
    for (int flat = 0; flat < Tr::voxelCount; ++flat) {
        const int3 ijk = cubeIndex(Tr::width, flat);
        if (!tile.isLeaf(tile.voxelChildIJK(ijk.x, ijk.y, ijk.z)) || !(std::abs(*cross.at(ijk)) < band)) continue;
        double squared = 0.0;
        bool all = true;
        for (int axis = 0; axis < 3 && all; ++axis) {
            int3 low = ijk, high = ijk;
            --low[axis];
            ++high[axis];
            float const *below = cross.at(low), *above = cross.at(high);
            all = below && above;
            if (all) squared += std::pow((double(*above) - double(*below)) / step, 2);
        }
        if (!all) continue;
        const double error = std::abs(std::sqrt(squared) - 1.0);
        sum += {1, error, error == error ? error : std::numeric_limits<double>::infinity()};
    }
}

}  // namespace

template <class Tr>
std::vector<GradientCheck> measureGradient(Container<Tr> const& tree, Channel<Tr, float, Tr::width, 0> const& distance)
{
    std::vector<GradientCheck> checks;
    const float band = std::abs(distance.defaultValue());
    constexpr OST::int64 kPart = 64;  // tiles whose sums are added in their order: the same bits for any number of threads
    for (int depth = std::max(distance.minDepth(), 0); depth <= std::min(distance.depth(), Tr::maxDepth); ++depth) {
        const OST::int64 count = tree.tileCount(depth);
        const double step = 2.0 * tree.voxelSize() * Tr::voxelDataWidth(depth);
        std::vector<Sum> parts((count + kPart - 1) / kPart);
        parallel::loop(0, static_cast<OST::int64>(parts.size()), 1, [&](OST::int64 begin, OST::int64 end) {
            const ConstTileAccessor<Tr> accessor(tree);
            for (OST::int64 part = begin; part < end; ++part)
                for (OST::int64 n = part * kPart; n < std::min(count, (part + 1) * kPart); ++n)
                    addTile<Tr>(Cross<Tr>(accessor, distance, tree.tile(n, depth)), tree.tile(n, depth), step, band, parts[part]);
        });
        Sum sum;
        for (Sum const& part : parts) sum += part;
        if (sum.voxels > 0) checks.push_back({depth, sum.voxels, sum.errors / double(sum.voxels), sum.largest});
    }
    return checks;
}

template std::vector<GradientCheck> measureGradient(Container<BinaryTraits> const&, Channel<BinaryTraits, float, 4, 0> const&);
template std::vector<GradientCheck> measureGradient(Container<QuinaryTraits> const&, Channel<QuinaryTraits, float, 5, 0> const&);

}  // namespace tilegrid::io
