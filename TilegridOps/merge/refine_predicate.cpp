#include "TilegridOps/merge/refine_predicate.h"

#include "TilegridOps/host/property_names.h"

namespace tilegrid {

using namespace OST::TileTree3D;
using Geometry::Volume::LevelSetMode;

template <class Tr>
void CombinedLevelSets::add(Container<Tr> const& tree, VoxelTopology<Tr> const& topology, LevelSet<Tr> const& channel)
{
    const std::size_t place = values_.size();
    values_.push_back(0.0f);
    if constexpr (std::is_same_v<Tr, BinaryTraits>) {
        samplersBinary_.emplace_back(tree, topology, &channel);
        placesBinary_.push_back(place);
    } else {
        samplersQuinary_.emplace_back(tree, topology, &channel);
        placesQuinary_.push_back(place);
    }
    // Corner samples need nothing below their tile; others reach half a voxel to both sides.
    const double rim = Tr::voxelDataWidth(0), below = topology.offsetType() == kCorner ? 0.0 : rim;
    reach_.low = std::max(reach_.low, (double(Tr::rangeMin) + below) * tree.voxelSize());
    reach_.high = std::min(reach_.high, (double(Tr::rangeMax) + 1.0 - rim) * tree.voxelSize());
    reach_.radius = std::min(reach_.radius, -double(Tr::rangeMin) * tree.voxelSize());
}
template void CombinedLevelSets::add(Container<BinaryTraits> const&, VoxelTopology<BinaryTraits> const&, LevelSet<BinaryTraits> const&);
template void CombinedLevelSets::add(Container<QuinaryTraits> const&, VoxelTopology<QuinaryTraits> const&, LevelSet<QuinaryTraits> const&);

float CombinedLevelSets::combineLevelSets(float3 const& position)
{
    for (std::size_t n = 0; n < samplersBinary_.size(); ++n)
        values_[placesBinary_[n]] = samplersBinary_[n].sampleLinear(position, BinaryTraits::maxDepth, kWorldSpace);
    for (std::size_t n = 0; n < samplersQuinary_.size(); ++n)
        values_[placesQuinary_[n]] = samplersQuinary_[n].sampleLinear(position, QuinaryTraits::maxDepth, kWorldSpace);
    if (values_.empty()) return 0.0f;
    float result = values_[0];
    for (std::size_t n = 1; n < values_.size(); ++n) {
        const float value = values_[n];
        switch (levelSetMode_) {
            case LevelSetMode::kUnion: result = std::min(result, value); break;
            case LevelSetMode::kDifference: result = std::max(result, -value); break;
            case LevelSetMode::kIntersection: result = std::max(result, value); break;
        }
    }
    return result;
}

namespace {

template <class Tr> void addLevelSet(OST::Object const& volume, CombinedLevelSets& levelSets)
{
    using namespace Ostara::Geometry;
    const auto tree = volume.component<Container<Tr>>(sVoxelTileTree);
    const auto topology = volume.component<VoxelTopology<Tr>>(sVoxelComp);
    const auto channel = volume.component<Channel<Tr, float, Tr::width, 0>>(sVoxelSignedDistance);
    if (tree && topology && channel) levelSets.add(*tree, *topology, *channel);
}

}  // namespace

CombinedLevelSets combinedLevelSets(NativeVolumes const& volumes, LevelSetMode mode)
{
    CombinedLevelSets levelSets(mode);
    for (auto const& volume : volumes) {
        addLevelSet<BinaryTraits>(*volume, levelSets);
        addLevelSet<QuinaryTraits>(*volume, levelSets);
    }
    return levelSets;
}

template <class Tr>
LevelSetRefinePredicate<Tr>::LevelSetRefinePredicate(CombinedLevelSets const& levelSets, Container<Tr> const& tree,
                                                     VoxelTopology<Tr> const& topology, float maxError)
    : levelSets_(levelSets), voxelSize_(tree.voxelSize()), voxelOffset_(topology.offset()), maxErrorSquared_(maxError * maxError)
{
    auto const& world = levelSets.reach();
    reach_.low = std::max(world.low / voxelSize_, double(Tr::rangeMin));
    reach_.high = std::min(world.high / voxelSize_, double(Tr::rangeMax));
    reach_.radius = std::min(world.radius / voxelSize_, -double(Tr::rangeMin));
}

template <class Tr> bool LevelSetRefinePredicate<Tr>::touchesBorder(Tile const& tile, int3 const& child) const
{
    constexpr int kFirstDepth = 2;
    const double width = tile.voxelWidth();
    if (tile.depth() + 1 < kFirstDepth || width > 0.5 * reach_.radius) return false;
    const int3 corner = tile.childTIJK(child);
    for (int axis = 0; axis < 3; ++axis)
        if (double(corner[axis]) <= reach_.low || double(corner[axis]) + width > reach_.high) return true;
    return false;
}

template <class Tr> bool LevelSetRefinePredicate<Tr>::isNearSurface(Tile const& tile, int3 const& child)
{
    constexpr float kBand = 1.914f;
    const float d = static_cast<float>(tile.voxelDataWidth()) * voxelSize_;
    const float3 centre = voxelSize_ * float3(tile.tijk()) + d * (float3(blocksPerChild * child) + float3(childCentre));
    return kBand * voxelSize_ * static_cast<float>(tile.voxelWidth()) > std::fabs(levelSets_.combineLevelSets(centre));
}

template <class Tr> bool LevelSetRefinePredicate<Tr>::missesInBlock(Tile const& tile, int3 const& child, int3 const& block)
{
    const float d = static_cast<float>(tile.voxelDataWidth()) * voxelSize_;
    const float childWidth = static_cast<float>(tile.childVoxelDataWidth());
    const float3 low = voxelSize_ * float3(tile.tijk()) + d * (float3(blocksPerChild * child + block) + voxelOffset_);
    const float3 childLow = voxelSize_ * float3(tile.childTIJK(child));
    std::array<float, 8> corner;
    for (int n = 0; n < 8; ++n)
        corner[n] = levelSets_.combineLevelSets(low + float3(n & 1 ? d : 0.0f, n & 2 ? d : 0.0f, n & 4 ? d : 0.0f));
    const auto samples = [](int at) { return at == lastBlock ? samplesInLastBlock : samplesInBlock; };
    for (int a = 0; a < samples(block.z); ++a)
        for (int b = 0; b < samples(block.y); ++b)
            for (int e = 0; e < samples(block.x); ++e) {
                const float3 f(float(e) * sampleStep, float(b) * sampleStep, float(a) * sampleStep);
                const float trilinear = detail::Trilinear<float>([&corner](int n) { return corner[n]; }, f).value(f);
                const float3 steps = float3(blocksPerChild * block + int3(e, b, a)) + voxelOffset_;
                const float3 place = childLow + voxelSize_ * (childWidth * steps);
                const float difference = trilinear - levelSets_.combineLevelSets(place);
                if (difference * difference > maxErrorSquared_) return true;
            }
    return false;
}

template <class Tr> bool LevelSetRefinePredicate<Tr>::operator()(Tile const& tile, int3 const& child)
{
    if (tile.depth() >= Tr::maxDepth || touchesBorder(tile, child) || !isNearSurface(tile, child)) return false;
    for (int k = 0; k < blocksPerChild; ++k)
        for (int j = 0; j < blocksPerChild; ++j)
            for (int i = 0; i < blocksPerChild; ++i)
                if (missesInBlock(tile, child, int3(i, j, k))) return true;
    return false;
}

template class LevelSetRefinePredicate<BinaryTraits>;
template class LevelSetRefinePredicate<QuinaryTraits>;

}  // namespace tilegrid
