#pragma once
#include "TilegridOps/substrate/traits.h"

#include <array>

namespace OST::TileTree3D {

// Some compilers take the visibility of all instances from the first declaration.
template <class Tr> class TILEGRID_API Container;

/// The table of a tile without children. One per structure in the whole program, so that its address tells.
template <int C> struct NoChildren;
template <> struct NoChildren<8> {
    TILEGRID_API static const std::array<int64, 8> entries;
};
template <> struct NoChildren<125> {
    TILEGRID_API static const std::array<int64, 125> entries;
};

/// Indices of a tile's children in the next level, -1 where there is none. Only tiles with children own entries (the
/// container keeps them); all others point at one shared table, so that a read needs no test.
template <int C> struct ChildTable {
    int64 const* entries = NoChildren<C>::entries.data();
    int64 operator[](int cell) const { return entries[cell]; }
    bool empty() const { return entries == NoChildren<C>::entries.data(); }
};

/// What both structures' tiles have in common, in member order.
template <int C> class TileBinaryNonCompatible {
public:
    /// Low corner in tile space.
    int3 const& tijk() const { return tijk_; }
    TreeIndex treeIndex() const { return {index_, depth_}; }
    /// Index -1 if the tile has no parent.
    TreeIndex parentTreeIndex() const { return parentIndex_ < 0 ? TreeIndex{} : TreeIndex{parentIndex_, depth_ - 1}; }
    int depth() const { return depth_; }
    int64 index() const { return index_; }
    /// False only for the placeholder that stands for a place outside the tree.
    bool valid() const { return valid_; }

protected:
    int3 tijk_;
    std::int32_t depth_ = -1;
    int64 index_ = -1;
    int64 parentIndex_ = -1;
    ChildTable<C> children_;
    bool valid_ = false;
};

/// A cube of W x W x W voxels of one depth, and the places of its up to B x B x B children. 48 bytes; a plain value that
/// the container stores in index order.
template <class Tr, int C> class Tile : public TileBinaryNonCompatible<C> {
    static_assert(C == Tr::childCount);

public:
    using Traits = Tr;
    static constexpr int width = Tr::width;

    VoxelCoord voxelCoord() const { return {this->tijk_, this->depth_}; }

    /// Whether the tile has no children at all.
    bool isLeaf() const { return this->children_.empty(); }
    /// Whether a child cell, 0 to B-1 per axis, has no child tile.
    bool isLeaf(int cell) const { return this->children_[cell] < 0; }
    bool isLeaf(int i, int j, int k) const { return isLeaf(flatIndex(Tr::branching, i, j, k)); }
    bool isLeaf(int3 const& cell) const { return isLeaf(cell.x, cell.y, cell.z); }
    /// Index of the child in the next level, -1 if there is none.
    int64 childIndex(int cell) const { return this->children_[cell]; }
    int64 childIndex(int3 const& cell) const { return childIndex(flatIndex(Tr::branching, cell.x, cell.y, cell.z)); }
    /// All child indices by cell; a table of -1 for a tile without children.
    int64 const* childIndices() const { return this->children_.entries; }
    TreeIndex childTreeIndex(int i, int j, int k) const { return childTreeIndex(int3(i, j, k)); }
    TreeIndex childTreeIndex(int3 const& cell) const
    {
        const int64 index = childIndex(cell);
        return index < 0 ? TreeIndex{} : TreeIndex{index, this->depth_ + 1};
    }

    /// The child cell that holds a tile-space place inside the tile.
    int3 childIJK(int3 const& place) const { return childIJK(place.x, place.y, place.z); }
    int3 childIJK(int i, int j, int k) const
    {
        const int cell = voxelWidth();
        return {(i - this->tijk_.x) / cell, (j - this->tijk_.y) / cell, (k - this->tijk_.z) / cell};
    }
    /// The child cell that holds a descendant.
    int3 childIJK(Tile const& descendant) const { return childIJK(descendant.tijk()); }
    /// The child cell that holds a voxel, 0 to W-1 per axis.
    static constexpr int3 voxelChildIJK(int i, int j, int k)
    {
        return {i / Tr::cellVoxels, j / Tr::cellVoxels, k / Tr::cellVoxels};
    }
    /// The voxel of the child (of the cell that holds voxel (i,j,k)) whose low corner coincides with that voxel's.
    static constexpr int3 childDataIJK(int i, int j, int k)
    {
        return {i % Tr::cellVoxels * Tr::childStride, j % Tr::cellVoxels * Tr::childStride, k % Tr::cellVoxels * Tr::childStride};
    }
    /// Low corner of a child cell in tile space.
    int3 childTIJK(int3 const& cell) const
    {
        const int w = voxelWidth();
        return {this->tijk_.x + cell.x * w, this->tijk_.y + cell.y * w, this->tijk_.z + cell.z * w};
    }

    /// Widths in tile-space units: of a child cell, of a voxel, of the tile.
    int voxelWidth() const { return Tr::voxelWidth(this->depth_); }
    int voxelDataWidth() const { return Tr::voxelDataWidth(this->depth_); }
    static constexpr int voxelDataWidth(int depth) { return Tr::voxelDataWidth(depth); }
    int tileVoxelWidth() const { return Tr::tileVoxelWidth(this->depth_); }
    static constexpr int tileVoxelWidth(int depth) { return Tr::tileVoxelWidth(depth); }
    /// For a tile above the finest depth.
    int childVoxelDataWidth() const { return Tr::voxelDataWidth(this->depth_ + 1); }
    /// For a tile below depth 0.
    int parentVoxelDataWidth() const { return Tr::voxelDataWidth(this->depth_ - 1); }

    /// Inclusive at both ends.
    void tileSpaceBounds(Ostara::Math::bbox<int3, int>& box) const
    {
        const int w = tileVoxelWidth() - 1;
        box.min = this->tijk_;
        box.max = {this->tijk_.x + w, this->tijk_.y + w, this->tijk_.z + w};
    }
    bool contains(int i, int j, int k) const
    {
        // Differences of places in tile space fit 32 unsigned bits, so one compare per axis tests both ends.
        const auto w = static_cast<std::uint32_t>(tileVoxelWidth());
        return std::uint32_t(i) - std::uint32_t(this->tijk_.x) < w && std::uint32_t(j) - std::uint32_t(this->tijk_.y) < w &&
               std::uint32_t(k) - std::uint32_t(this->tijk_.z) < w;
    }
    bool contains(int3 const& place) const { return contains(place.x, place.y, place.z); }

private:
    friend class Container<Tr>;
    template <class T> friend class Growth;
};

/// Whether tile a lies before tile b in Morton order (k, then j, then i most significant at every level). Both are low
/// corners of tiles.
template <class Tr> TILEGRID_API bool mortonLess(int3 const& a, int3 const& b);

}  // namespace OST::TileTree3D
