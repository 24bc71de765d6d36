#include "TilegridOps/host/logger.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/merge/output_topology.h"
#include "TilegridOps/substrate/traversal.h"

#include <iostream>

namespace tilegrid {

using namespace OST::TileTree3D;
using OST::int64;

namespace {

/// The depth of structure Tr whose voxels are `ratio` finest voxels wide, or the widest ones below that.
template <class Tr> int depthOfWidth(float ratio)
{
    // Powers are multiplied up, not found by logarithms, whose rounding falls one short at some of them.
    int level = 0;
    for (double width = Tr::branching; level < Tr::maxDepth && width <= double(ratio); width *= Tr::branching) ++level;
    return Tr::maxDepth - level;
}

/// The source's tile boxes in the tile space of another tree.
class BoxTransfer {
public:
    /// \param ratio  source voxel over target voxel, formed once, so that whole ratios stay whole
    BoxTransfer(double ratio, double low, double high) : ratio_(ratio), low_(low), high_(high) {}

    /// False for a box outside the range.
    bool operator()(Ostara::Math::bbox<int3, int> const& from, int3& low, int3& high) const
    {
        for (int axis = 0; axis < 3; ++axis) {
            const double first = std::max(double(from.min[axis]) * ratio_, low_), last = std::min(double(from.max[axis]) * ratio_, high_);
            if (!(first <= last)) return false;
            low[axis] = static_cast<int>(first);
            high[axis] = static_cast<int>(last);
        }
        return true;
    }

private:
    double ratio_, low_, high_;
};

template <class Source, class Out> void addTilesOf(OST::Object const& volume, Container<Out>& out, int volumeIndex)
{
    const auto source = volume.component<Container<Source>>(Ostara::Geometry::sVoxelTileTree);
    if (!source) return;
    bool sameLattice = false;
    if constexpr (std::is_same_v<Source, Out>) {
        sameLattice = source->voxelSize() >= out.voxelSize() && out.voxelSize() >= source->voxelSize();
        if (sameLattice) out.refine(*source, nullptr, /*updateLookup*/ false);
    }
    if (!sameLattice) refineFromContainer(*source, out);
    if (CoreGL::Logger::verboseLevel() > 1)
        std::cout << "After merging with volume " << volumeIndex << ": containerOut.voxelCount() = " << out.voxelCount(-1) << std::endl;
}

}  // namespace

template <class Source, class Out> void refineFromContainer(Container<Source> const& source, Container<Out>& out)
{
    const double ratio = double(source.voxelSize()) / double(out.voxelSize());
    const float invOutVoxelSize = 1.0f / out.voxelSize(), sourceVoxelSize = source.voxelSize();
    const BoxTransfer transfer(ratio, Out::rangeMin, Out::rangeMax);
    const auto addTiles = [&](int64 begin, int64 end, Container<Out>& collected) {
        auto accessor = collected.tileAccessor();
        for (int64 n = begin; n < end; ++n) {
            auto const& tile = source.tile(n);
            Ostara::Math::bbox<int3, int> box;
            tile.tileSpaceBounds(box);
            int3 low, high;
            if (!transfer(box, low, high)) continue;
            const float width = static_cast<float>(tile.voxelDataWidth()) * sourceVoxelSize * invOutVoxelSize;
            accessor.addTiles(low, high, depthOfWidth<Out>(width));
        }
    };
    out.template refine<decltype(addTiles), int64>(addTiles, 0, source.tileCount(-1), 50, nullptr);
}

template <class Tr>
void refineTopologyUniformly(NativeVolumes const& volumes, Container<Tr>& tree, Corvid::RuntimeServices const& services)
{
    using Other = std::conditional_t<std::is_same_v<Tr, BinaryTraits>, QuinaryTraits, BinaryTraits>;
    const auto timer = CoreGL::Logger::timer("Geometry::Volume::merge_volumes.refine_uniformly", &services);
    int volumeIndex = 0;
    for (auto const& volume : volumes) {
        addTilesOf<Tr>(*volume, tree, volumeIndex);
        addTilesOf<Other>(*volume, tree, volumeIndex);
        ++volumeIndex;
    }
}

template void refineFromContainer(Container<BinaryTraits> const&, Container<BinaryTraits>&);
template void refineFromContainer(Container<QuinaryTraits> const&, Container<BinaryTraits>&);
template void refineFromContainer(Container<BinaryTraits> const&, Container<QuinaryTraits>&);
template void refineFromContainer(Container<QuinaryTraits> const&, Container<QuinaryTraits>&);
template void refineTopologyUniformly(NativeVolumes const&, Container<BinaryTraits>&, Corvid::RuntimeServices const&);
template void refineTopologyUniformly(NativeVolumes const&, Container<QuinaryTraits>&, Corvid::RuntimeServices const&);

}  // namespace tilegrid
