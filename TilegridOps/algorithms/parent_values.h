#pragma once
#include "TilegridOps/substrate/child_values.h"
#include "TilegridOps/substrate/coarse_read.h"
#include "TilegridOps/substrate/neighbor_walk.h"
#include "TilegridOps/substrate/parallel.h"

#include <algorithm>
#include <array>
#include <bit>
#include <bitset>
#include <cstring>
#include <vector>

/// Values that follow from the depth above, of a property whose other voxels were just computed.
namespace tilegrid {

/// What lies around a tile, a bit for each of the 27 directions.
struct AroundTile {
    /// Only coarser tiles, at depths that the property has.
    std::uint32_t coarser = 0;
    /// No tile, or none at a depth that the property has.
    std::uint32_t outside = 0;
};

/// Tells it for one tile after the other; one per thread.
template <class Tr> class AroundTiles {
public:
    using Tree = OST::TileTree3D::Container<Tr>;

    AroundTiles(Tree const& tree, int minDepth) : tree_(tree), walk_(tree), minDepth_(minDepth) {}
    AroundTile of(typename Tree::Tile const& tile)
    {
        using namespace OST::TileTree3D;
        AroundTile found;
        auto const* table = tree_.tileNeighbors();
        auto const* around = table ? nullptr : &walk_.around(tile);
        for (int n = 0; n < 27; ++n) {
            if (n == kNeighborSelf) continue;
            const TreeIndex at = table ? table->find(tile.treeIndex(), NeighborDirection(n)) : (*around)[std::size_t(n)];
            if (at.depth == tile.depth()) continue;
            (at.valid() && at.depth >= minDepth_ ? found.coarser : found.outside) |= 1u << n;
        }
        return found;
    }

private:
    Tree const& tree_;
    OST::TileTree3D::NeighborWalk<Tr> walk_;
    int minDepth_;
};

template <class Tr> using VoxelSet = std::bitset<Tr::voxelCount>;

/// Sets of directions.
inline constexpr std::uint32_t kAllAround = (1u << 27) - 1 - (1u << OST::TileTree3D::kNeighborSelf);
inline constexpr std::uint32_t kFacesAround = 1u << 4 | 1u << 10 | 1u << 12 | 1u << 14 | 1u << 16 | 1u << 22;
/// Without a step to the high side: where a coarser tile makes voxels hang.
inline constexpr std::uint32_t kLowAround = 1u << 0 | 1u << 1 | 1u << 3 | 1u << 4 | 1u << 9 | 1u << 10 | 1u << 12;

/// The voxels of a tile from which a step of one voxel leads to one of the directions.
template <class Tr> VoxelSet<Tr> voxelsBeside(std::uint32_t directions)
{
    using namespace OST::TileTree3D;
    static const auto beside = [] {
        std::array<VoxelSet<Tr>, 27> all;
        for (int n = 0; n < 27; ++n) {
            const int3 step = neighborOffset(NeighborDirection(n));
            for (int v = 0; v < Tr::voxelCount; ++v) {
                const int3 at = cubeIndex(Tr::width, v);
                bool reaches = true;
                for (int axis = 0; axis < 3; ++axis) reaches &= step[axis] == 0 || at[axis] == (step[axis] < 0 ? 0 : Tr::width - 1);
                all[std::size_t(n)][std::size_t(v)] = reaches;
            }
        }
        return all;
    }();
    VoxelSet<Tr> set;
    for (; directions; directions &= directions - 1) set |= beside[std::size_t(std::countr_zero(directions))];
    return set;
}

/// Writes voxels of tiles as the trilinear mix of the values one depth above; one per thread.
template <class Tr, class T> class ParentValues {
    static constexpr int W = Tr::width;

public:
    using Tree = OST::TileTree3D::Container<Tr>;
    using Values = OST::TileTree3D::Channel<Tr, T, W, 0>;

    ParentValues(Tree const& tree, Values const& channel, OST::TileTree3D::VoxelOffsetType offset)
        : tree_(tree), accessor_(tree.tileAccessor()),
          reader_(OST::TileTree3D::VoxelView<T>(channel), accessor_, offset, channel.defaultValue())
    {
    }
    /// All voxels of a tile that has a parent, at a depth that the channel has.
    void writeAll(typename Tree::Tile const& tile, T* values) const
    {
        const auto all = VoxelSet<Tr>().set();
        if (!writeInOneStep(tile, all, values)) write(tile, all, Span{}, Span{}, Span{}, values);
    }
    /// The voxels of a set, which lie beside the directions.
    void write(typename Tree::Tile const& tile, std::uint32_t directions, VoxelSet<Tr> const& which, T* values) const
    {
        if (!writeInOneStep(tile, which, values)) write(tile, which, Span(directions, 9), Span(directions, 3), Span(directions, 1), values);
    }

private:
    /// Voxels along an axis that lie beside some directions.
    struct Span {
        int first = 0, count = W;
        Span() = default;
        /// \param stride  between directions that differ by one step along the axis
        Span(std::uint32_t directions, int stride)
        {
            bool side[3] = {};
            for (; directions; directions &= directions - 1) side[std::countr_zero(directions) / stride % 3] = true;
            if (side[1] || (side[0] && side[2])) return;
            first = side[2] ? W - 1 : 0;
            count = 1;
        }
    };
    using Taps = OST::TileTree3D::SiteTaps;

    /// Along x, then y, then z, so that the values have the bits of `mixSites`.
    void write(typename Tree::Tile const& tile, VoxelSet<Tr> const& which, Span const& x, Span const& y, Span const& z, T* values) const
    {
        constexpr int kMost = OST::TileTree3D::SiteReader<Tr, T>::kMostSites;
        const auto above = tile.parentTreeIndex();
        const auto from = tile.tijk() - tree_.tile(above).tijk();
        const int width = tile.voxelDataWidth(), siteWidth = tile.parentVoxelDataWidth();
        const Taps tx(x.count, from.x + x.first * width, width, siteWidth, reader_.centred(0)),
            ty(y.count, from.y + y.first * width, width, siteWidth, reader_.centred(1)),
            tz(z.count, from.z + z.first * width, width, siteWidth, reader_.centred(2));
        T sites[kMost * kMost * kMost], lines[kMost][W], planes[kMost][W][W], row[W];
        if (!gatherRows(above, tx, ty, tz, sites)) reader_.gather(above, {tx.low, ty.low, tz.low}, {tx.count, ty.count, tz.count}, sites);
        for (int k = 0; k < tz.count; ++k) {
            for (int j = 0; j < ty.count; ++j) {
                T const* line = sites + tx.count * (j + ty.count * k);
                for (int i = 0; i < x.count; ++i) {
                    T const* low = line + tx[i].base;
                    mixRow(low, low + 1, tx[i].fraction, 1, &lines[j][i]);
                }
            }
            for (int j = 0; j < y.count; ++j) mixRow(lines[ty[j].base], lines[ty[j].base + 1], ty[j].fraction, x.count, planes[k][j]);
        }
        for (int k = 0; k < z.count; ++k)
            for (int j = 0; j < y.count; ++j) {
                mixRow(planes[tz[k].base][j], planes[tz[k].base + 1][j], tz[k].fraction, x.count, row);
                const int first = x.first + W * (y.first + j + W * (z.first + k));
                for (int i = 0; i < x.count; ++i)
                    if (which[std::size_t(first + i)]) values[first + i] = row[i];
            }
    }
    using Element = Ostara::Math::ElementTraits<T>;
    using Scalar = typename Element::Scalar;
    static constexpr int kComponents = Element::components;
    /// Sites that a tile lies among along an axis where samples are at corners.
    static constexpr int kSites = Tr::branching == 2 ? 3 : 2;
    /// The W values of a row, component by component.
    using Row = std::array<Scalar, W * kComponents>;
    /// The sites along x, as well.
    using Sites = std::array<Scalar, kSites * kComponents>;
    static constexpr auto kTaps = [] {
        std::array<OST::TileTree3D::SiteTap, W> taps;
        for (int n = 0; n < W; ++n) taps[std::size_t(n)] = OST::TileTree3D::siteTap(n, 1, Tr::childStride, false);
        return taps;
    }();

    /// `write` for corner samples, with everything known beforehand but where the tile lies in its parent: the same bits. False,
    /// and nothing done, for other samples, or if there are only coarser tiles beside the parent.
    bool writeInOneStep(typename Tree::Tile const& tile, VoxelSet<Tr> const& which, T* values) const
    {
        if (reader_.centred(0) || reader_.centred(1) || reader_.centred(2)) return false;
        const auto above = tile.parentTreeIndex();
        Sites sites[kSites * kSites];
        if (!gatherAll(above, tree_.tile(above).childIJK(tile), sites)) return false;
        Row planes[kSites][W];
        for (int k = 0; k < kSites; ++k) {
            Row lines[kSites];
            for (int j = 0; j < kSites; ++j) mixAlongX(sites[j + kSites * k], lines[j]);
            for (int j = 0; j < W; ++j) mixRows(lines, 1, kTaps[std::size_t(j)], planes[k][j]);
        }
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j) {
                const int first = W * (j + W * k);
                const unsigned wanted = bitsOf(which, first);
                if (wanted == 0) continue;
                Row row;
                mixRows(&planes[0][j], W, kTaps[std::size_t(k)], row);
                if (wanted == (1u << W) - 1) {
                    std::memcpy(static_cast<void*>(values + first), row.data(), sizeof row);
                    continue;
                }
                for (int i = 0; i < W; ++i)
                    if (wanted >> i & 1) std::memcpy(static_cast<void*>(values + first + i), row.data() + i * kComponents, sizeof(T));
            }
        return true;
    }
    static unsigned bitsOf(VoxelSet<Tr> const& which, int first)
    {
        if constexpr (Tr::voxelCount <= 64) {
            return unsigned(which.to_ullong() >> first) & ((1u << W) - 1);
        } else {
            unsigned bits = 0;
            for (int i = 0; i < W; ++i) bits |= unsigned(which[std::size_t(first + i)]) << i;
            return bits;
        }
    }
    [[gnu::always_inline]] static void mixAlongX(Sites const& sites, Row& out)
    {
#pragma GCC unroll 5
        for (int i = 0; i < W; ++i) {
            const auto tap = kTaps[std::size_t(i)];
            auto const* low = sites.data() + tap.base * kComponents;
            auto* to = out.data() + i * kComponents;
            for (int c = 0; c < kComponents; ++c)
                to[c] = tap.fraction == 0 ? low[c] : (low[c + kComponents] - low[c]) * Scalar(tap.fraction) + low[c];
        }
    }
    /// \param step  from one site's row to the next
    [[gnu::always_inline]] static void mixRows(Row const* rows, int step, OST::TileTree3D::SiteTap const& tap, Row& out)
    {
        Row const& low = rows[tap.base * step];
        if (tap.fraction == 0) {
            out = low;
            return;
        }
        Row const& high = rows[(tap.base + 1) * step];
        for (std::size_t n = 0; n < out.size(); ++n) out[n] = (high[n] - low[n]) * Scalar(tap.fraction) + low[n];
    }
    /// All sites that a child lies among, row by row.
    bool gatherAll(OST::TileTree3D::TreeIndex const& above, OST::TileTree3D::int3 const& cell, Sites* sites) const
    {
        constexpr int r = Tr::cellVoxels;
        if (!(above == parent_)) {
            parent_ = above;
            known_ = 0;
        }
        const int inside = std::min(kSites, W - r * cell.x);
        for (int k = r * cell.z; k < r * cell.z + kSites; ++k)
            for (int j = r * cell.y; j < r * cell.y + kSites; ++j, ++sites) {
                const int dy = j >= W, dz = k >= W, row = W * (j - W * dy + W * (k - W * dz));
                T const* tile = tileBeside(OST::TileTree3D::neighborDirection(0, dy, dz));
                T const* next = inside < kSites ? tileBeside(OST::TileTree3D::neighborDirection(1, dy, dz)) : tile;
                if (!tile || !next) return false;
                constexpr int kSure = kSites - 1;
                std::memcpy(sites->data(), tile + row + r * cell.x, kSure * sizeof(T));
                std::memcpy(sites->data() + kSure * kComponents, inside < kSites ? next + row : tile + row + r * cell.x + kSure, sizeof(T));
            }
        return true;
    }
    /// The sites as `SiteReader::gather` gives them, row by row from the tiles of the parent's depth. False if one of those is missing.
    bool gatherRows(OST::TileTree3D::TreeIndex const& above, Taps const& x, Taps const& y, Taps const& z, T* sites) const
    {
        if (!(above == parent_)) {
            parent_ = above;
            known_ = 0;
        }
        const auto side = [](int s) { return s < 0 ? -1 : s >= W ? 1 : 0; };
        for (int k = z.low; k < z.low + z.count; ++k)
            for (int j = y.low; j < y.low + y.count; ++j) {
                const int dy = side(j), dz = side(k), row = W * (j - W * dy + W * (k - W * dz));
                for (int i = x.low; i < x.low + x.count;) {
                    const int dx = side(i), end = std::min(x.low + x.count, dx < 0 ? 0 : dx == 0 ? W : 2 * W);
                    T const* tile = tileBeside(OST::TileTree3D::neighborDirection(dx, dy, dz));
                    if (!tile) return false;
                    for (; i < end; ++i) *sites++ = tile[i - W * dx + row];
                }
            }
        return true;
    }
    /// Values of a tile of the parent's depth beside the parent, or the parent itself; null if there is none.
    T const* tileBeside(OST::TileTree3D::NeighborDirection direction) const
    {
        if (!(known_ >> direction & 1)) {
            const auto at = direction == OST::TileTree3D::kNeighborSelf ? parent_ : accessor_.treeIndexNeighbor(tree_.tile(parent_), direction);
            beside_[std::size_t(direction)] = at.depth == parent_.depth ? reader_.voxels().tile(at) : nullptr;
            known_ |= 1u << direction;
        }
        return beside_[std::size_t(direction)];
    }
    /// As `mixed`, over the numbers that the elements are made of. With fraction 0 `high` is not read.
    static void mixRow(T const* low, T const* high, float fraction, int count, T* out)
    {
        if (fraction == 0) {
            std::copy_n(low, count, out);
            return;
        }
        auto const *a = reinterpret_cast<Scalar const*>(low), *b = reinterpret_cast<Scalar const*>(high);
        auto* to = reinterpret_cast<Scalar*>(out);
        for (int n = 0; n < count * kComponents; ++n) to[n] = (b[n] - a[n]) * Scalar(fraction) + a[n];
    }

    Tree const& tree_;
    OST::TileTree3D::ConstTileAccessor<Tr> accessor_;
    OST::TileTree3D::SiteReader<Tr, T> reader_;
    /// The last parent, and what lies around it as far as it was asked for. Children of one follow each other.
    mutable OST::TileTree3D::TreeIndex parent_;
    mutable std::uint32_t known_ = 0;
    mutable std::array<T const*, 27> beside_{};
};

/// Tiles that a task takes at once.
inline constexpr OST::int64 kTilesAtOnce = 64;

/// By depth and tile, the directions of coarser tiles that make voxels hang: some of `kLowAround`.
template <class Tr> using HangingSides = std::array<std::vector<std::uint32_t>, Tr::levels>;

namespace detail {

/// Whether voxels of a tile hang, by the axes (bits 0, 1, 2) on which they have coordinate 0.
inline std::uint8_t hangingCorners(std::uint32_t sides)
{
    std::uint8_t corners = 0;
    for (; sides; sides &= sides - 1) {
        const auto step = OST::TileTree3D::neighborOffset(OST::TileTree3D::NeighborDirection(std::countr_zero(sides)));
        const int needed = (step.x < 0) | (step.y < 0) << 1 | (step.z < 0) << 2;
        for (int zero = 0; zero < 8; ++zero)
            if ((zero & needed) == needed) corners |= std::uint8_t(1 << zero);
    }
    return corners;
}

/// Gives voxels above a child its coincident voxel's value, unless that hangs: then they are free.
template <class Tr, class T>
void copyFreeFromChildren(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::Channel<Tr, T, Tr::width, 0>& channel,
                          HangingSides<Tr> const& hanging, int depth)
{
    constexpr int r = Tr::cellVoxels, s = Tr::childStride, W = Tr::width;
    parallel::forRanges(0, tree.tileCount(depth), kTilesAtOnce, [&](OST::int64 begin, OST::int64 end) {
        for (OST::int64 n = begin; n < end; ++n) {
            auto const& tile = tree.tile(n, depth);
            if (tile.isLeaf()) continue;
            T* own = channel.tileData(n, depth).data();
            for (int cell = 0; cell < Tr::childCount; ++cell) {
                const OST::int64 child = tile.childIndex(cell);
                if (child < 0) continue;
                T const* from = std::as_const(channel).tileData(child, depth + 1).data();
                const std::uint8_t corners = hangingCorners(hanging[std::size_t(depth) + 1][std::size_t(child)]);
                const auto at = OST::TileTree3D::cubeIndex(Tr::branching, cell);
                for (int v = 0; v < r * r * r; ++v) {
                    const auto in = OST::TileTree3D::cubeIndex(r, v);
                    if (corners >> ((in.x == 0) | (in.y == 0) << 1 | (in.z == 0) << 2) & 1) continue;
                    own[OST::TileTree3D::flatIndex(W, at.x * r + in.x, at.y * r + in.y, at.z * r + in.z)] =
                        from[OST::TileTree3D::flatIndex(W, in.x * s, in.y * s, in.z * s)];
                }
            }
        }
    });
    parallel::endStage();
}

}  // namespace detail

/// Makes the voxels with children those of their children, and then the hanging voxels interpolated ones (corner samples only:
/// others do not hang). What hanging voxels held does not count.
/// \param hanging  for all tiles of the channel's depths; corner samples only
/// \throws std::runtime_error (OST::exceptionMessage) on cancellation
template <class Tr, class T>
void restoreDependents(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::Channel<Tr, T, Tr::width, 0>& channel,
                       OST::TileTree3D::VoxelOffsetType offset, HangingSides<Tr> const& hanging)
{
    if (offset != OST::TileTree3D::kCorner) return setNonLeafValueToChildValue(channel, tree, offset, channel.minDepth(), channel.depth());
    for (int depth = channel.depth() - 1; depth >= channel.minDepth(); --depth)
        if (tree.tileCount(depth) > 0) detail::copyFreeFromChildren<Tr, T>(tree, channel, hanging, depth);
    for (int depth = channel.minDepth() + 1; depth <= channel.depth(); ++depth) {
        if (tree.tileCount(depth) == 0) continue;
        parallel::forRanges(0, tree.tileCount(depth), kTilesAtOnce, [&](OST::int64 begin, OST::int64 end) {
            const ParentValues<Tr, T> parents(tree, channel, offset);
            for (OST::int64 n = begin; n < end; ++n)
                if (const std::uint32_t sides = hanging[std::size_t(depth)][std::size_t(n)])
                    parents.write(tree.tile(n, depth), sides, voxelsBeside<Tr>(sides), channel.tileData(n, depth).data());
        });
        parallel::endStage();
    }
}

}  // namespace tilegrid
