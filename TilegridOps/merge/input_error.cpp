#include "TilegridOps/merge/input_error.h"

#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/traversal.h"

#include <cmath>
#include <limits>

namespace tilegrid {

using namespace OST::TileTree3D;

namespace {

/// Squared errors times area, and area.
struct ErrorSum {
    double squares = 0, area = 0;
};

/// The bound of the error around a voxel whose six neighbours lie in the tile.
template <class Tr> double errorAt(float const* values, int flat)
{
    double sum = 0;
    for (int stride : {1, Tr::width, Tr::width * Tr::width})
        sum += std::abs(double(values[flat - stride]) - 2.0 * double(values[flat]) + double(values[flat + stride]));
    return sum / 8;
}

template <class Tr> void addTile(float const* values, double voxelSize, ErrorSum& sum)
{
    for (int k = 1; k < Tr::width - 1; ++k)
        for (int j = 1; j < Tr::width - 1; ++j)
            for (int i = 1; i < Tr::width - 1; ++i) {
                const int flat = flatIndex(Tr::width, i, j, k);
                if (!(std::abs(double(values[flat])) <= voxelSize)) continue;
                const double error = errorAt<Tr>(values, flat);
                if (!(error <= std::numeric_limits<float>::max())) continue;
                sum.squares += error * error * voxelSize * voxelSize;
                sum.area += voxelSize * voxelSize;
            }
}

template <class Tr> double errorIn(OST::Object const& volume)
{
    const auto tree = volume.component<Container<Tr>>(Ostara::Geometry::sVoxelTileTree);
    const auto levelSet = volume.component<Channel<Tr, float, Tr::width, 0>>(Ostara::Geometry::sVoxelSignedDistance);
    if (!tree || !levelSet) return 0;
    ErrorSum sum;
    const auto readTile = [&](auto const& tile, ErrorSum& own) {
        const auto values = levelSet->tileData(tile.treeIndex());
        if (values && tile.isLeaf()) addTile<Tr>(values.data(), double(tile.voxelDataWidth()) * tree->voxelSize(), own);
    };
    const auto join = [](ErrorSum& left, ErrorSum const& right) {
        left.squares += right.squares;
        left.area += right.area;
    };
    tree->reduce(detail::Nothing(), detail::Nothing(), readTile, detail::Nothing(), detail::Nothing(), join, sum, kByLevel, TreeIndex(), 0,
                 Tr::maxDepth, 50);
    return sum.area > 0 ? std::sqrt(sum.squares / sum.area) : 0;
}

}  // namespace

double interpolationError(OST::Object const& volume)
{
    return std::max(errorIn<BinaryTraits>(volume), errorIn<QuinaryTraits>(volume));
}

}  // namespace tilegrid
