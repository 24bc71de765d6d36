#include "TilegridOps/substrate/topology.h"

#include <ostream>

namespace OST::TileTree3D {

template <class Tr> VoxelTopology<Tr>::VoxelTopology(Corvid::String const& name, VoxelOffsetType offset) : Component(name), offset_(offset) {}

template <class Tr> void VoxelTopology<Tr>::dump(std::ostream& out) const
{
    out << name() << " : offset " << offset() << ", " << tileCount(-1) << " tiles\n";
}

template <class Tr> void VoxelTopology<Tr>::memUse(std::size_t& used, std::size_t& reserved, bool) const
{
    used += sizeof(tiles_);
    reserved += sizeof(tiles_);
}

template <class Tr> void VoxelTopology<Tr>::copyTo(Corvid::Ptr<OST::Component>& copy) const
{
    copy = Corvid::makeMutable<VoxelTopology>(*this);
}

template <class Tr> void VoxelTopology<Tr>::update(OST::Component const& source)
{
    if (auto const* tiles = dynamic_cast<Component const*>(&source))
        for (int depth = 0; depth < Tr::levels; ++depth) tiles_[depth] = tiles->tileCount(depth);
}

template <class Tr> std::int32_t VoxelTopology<Tr>::elementCount(TreeIndex const& tile) const
{
    return tile.valid() && tile.index < tileCount(tile.depth) ? Tr::voxelCount : 0;
}

template <class Tr> int64 VoxelTopology<Tr>::tileCount(int depth) const
{
    if (depth >= 0) return depth < Tr::levels ? tiles_[depth] : 0;
    int64 sum = 0;
    for (int64 tiles : tiles_) sum += tiles;
    return sum;
}

template <class Tr> PointTopology<Tr>::PointTopology(Corvid::String const& name) : Component(name) {}

template <class Tr> void PointTopology<Tr>::dump(std::ostream& out) const
{
    out << name() << " : " << elementCount(-1) << " points in " << tileCount(-1) << " tiles\n";
}

template <class Tr> void PointTopology<Tr>::memUse(std::size_t& used, std::size_t& reserved, bool) const
{
    for (auto const& counts : counts_) {
        used += counts.size() * sizeof(counts[0]);
        reserved += counts.capacity() * sizeof(counts[0]);
    }
}

template <class Tr> void PointTopology<Tr>::copyTo(Corvid::Ptr<OST::Component>& copy) const
{
    copy = Corvid::makeMutable<PointTopology>(*this);
}

template <class Tr> void PointTopology<Tr>::update(OST::Component const& source)
{
    if (auto const* tiles = dynamic_cast<Component const*>(&source))
        for (int depth = 0; depth < Tr::levels; ++depth) counts_[depth].resize(static_cast<std::size_t>(tiles->tileCount(depth)));
}

template <class Tr> int64 PointTopology<Tr>::elementCount(int depth) const
{
    int64 sum = 0;
    for (int d = 0; d < Tr::levels; ++d)
        if (depth < 0 || d == depth)
            for (std::int32_t count : counts_[d]) sum += count;
    return sum;
}

template <class Tr> std::int32_t PointTopology<Tr>::elementCount(TreeIndex const& tile) const
{
    return tile.valid() && tile.index < tileCount(tile.depth) ? counts_[tile.depth][tile.index] : 0;
}

template <class Tr> int64 PointTopology<Tr>::tileCount(int depth) const
{
    if (depth >= 0) return depth < Tr::levels ? static_cast<int64>(counts_[depth].size()) : 0;
    int64 sum = 0;
    for (auto const& counts : counts_) sum += static_cast<int64>(counts.size());
    return sum;
}

template <class Tr> void PointTopology<Tr>::updateTilesRemoved(TileMoves const& moves, Component const& source)
{
    for (int depth = 0; depth < Tr::levels; ++depth) {
        if (depth < int(moves.size()))
            for (auto const& [from, to] : moves[depth]) counts_[depth][to] = counts_[depth][from];
        counts_[depth].resize(static_cast<std::size_t>(source.tileCount(depth)));
    }
}

template <class Tr> void PointTopology<Tr>::updateTilesPermuted(TilePermutation const& permutation)
{
    for (int depth = 0; depth < std::min(Tr::levels, int(permutation.size())); ++depth) {
        if (permutation[depth].empty()) continue;
        std::vector<std::int32_t> sorted(counts_[depth].size());
        for (std::size_t n = 0; n < sorted.size(); ++n) sorted[n] = counts_[depth][permutation[depth][n]];
        counts_[depth] = std::move(sorted);
    }
}

template class VoxelTopology<BinaryTraits>;
template class VoxelTopology<QuinaryTraits>;
template class PointTopology<BinaryTraits>;
template class PointTopology<QuinaryTraits>;

}  // namespace OST::TileTree3D
