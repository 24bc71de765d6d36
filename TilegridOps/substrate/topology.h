#pragma once
#include "TilegridOps/substrate/component.h"

#include <array>

namespace OST::TileTree3D {

/// How many tiles a volume has per depth, and where in its cell a voxel's sample lies. Channels size themselves by it.
template <class Tr> class TILEGRID_API VoxelTopology final : public Component {
public:
    VoxelTopology(Corvid::String const& name, VoxelOffsetType offset);

    VoxelOffsetType offsetType() const { return offset_; }
    /// In voxels, each component 0 or 0.5.
    float3 offset() const { return voxelOffset(offset_); }

    void dump(std::ostream& out) const override;
    void memUse(std::size_t& used, std::size_t& reserved, bool withLookup) const override;
    void copyTo(Corvid::Ptr<OST::Component>& copy) const override;
    std::size_t size() const override { return static_cast<std::size_t>(elementCount(-1)); }
    bool empty() const override { return elementCount(-1) == 0; }
    /// Takes the tile counts of `source`, a container of this structure or any component with tiles.
    void update(OST::Component const& source) override;
    int64 elementCount(int depth) const override { return tileCount(depth) * Tr::voxelCount; }
    std::int32_t elementCount(TreeIndex const& tile) const override;
    int64 tileCount(int depth) const override;

private:
    VoxelOffsetType offset_;
    std::array<int64, Tr::levels> tiles_{};
};

/// How many points each tile holds. Made from a tree with `update`; the counts are the owner's to set.
template <class Tr> class TILEGRID_API PointTopology final : public Component {
public:
    explicit PointTopology(Corvid::String const& name);

    void dump(std::ostream& out) const override;
    void memUse(std::size_t& used, std::size_t& reserved, bool withLookup) const override;
    void copyTo(Corvid::Ptr<OST::Component>& copy) const override;
    std::size_t size() const override { return static_cast<std::size_t>(elementCount(-1)); }
    bool empty() const override { return elementCount(-1) == 0; }
    /// Takes the tiles of `source`: new ones hold no point.
    void update(OST::Component const& source) override;
    int64 elementCount(int depth) const override;
    std::int32_t elementCount(TreeIndex const& tile) const override;
    int64 tileCount(int depth) const override;
    /// Different tiles may be set at once.
    void setElementCount(TreeIndex const& tile, std::int32_t count) { counts_[tile.depth][tile.index] = count; }
    void updateTilesRemoved(TileMoves const& moves, Component const& source);
    void updateTilesPermuted(TilePermutation const& permutation);

private:
    std::array<std::vector<std::int32_t>, Tr::levels> counts_;
};

extern template class VoxelTopology<BinaryTraits>;
extern template class VoxelTopology<QuinaryTraits>;
extern template class PointTopology<BinaryTraits>;
extern template class PointTopology<QuinaryTraits>;

}  // namespace OST::TileTree3D
