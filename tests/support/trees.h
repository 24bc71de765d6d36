#pragma once
#include "TilegridOps/substrate/traversal.h"
#include "support/tile_set.h"

#include <string>

namespace tilegrid::test {

template <class Tr> using Tree = OST::TileTree3D::Container<Tr>;
using OST::TileTree3D::TreeIndex;
using Ostara::Math::int3;

inline int3 toInt3(Place const& p) { return {static_cast<int>(p[0]), static_cast<int>(p[1]), static_cast<int>(p[2])}; }
inline Place toPlace(int3 const& v) { return {v.x, v.y, v.z}; }
template <class TileT> TileKey keyOf(TileT const& tile) { return {tile.depth(), toPlace(tile.tijk())}; }

/// The tiles of every depth in index order.
template <class Tr> std::vector<std::vector<TileKey>> orderOf(Tree<Tr> const& tree)
{
    std::vector<std::vector<TileKey>> order(Tr::levels);
    for (int d = 0; d < Tr::levels; ++d)
        for (OST::int64 n = 0; n < tree.tileCount(d); ++n) order[d].push_back(keyOf(tree.tile(n, d)));
    return order;
}

/// One line for everything in which the tree differs from the set; empty if they agree. Looks at every tile, at both ends of
/// every link, and at all counts.
template <class Tr> std::string differences(Tree<Tr> const& tree, TileSet<Tr> const& set)
{
    std::ostringstream out;
    for (std::string const& line : checkTree(tree)) out << "checkTree: " << line << "\n";
    OST::int64 running = 0, deepest = -1;
    for (int d = 0; d < Tr::levels; ++d) {
        OST::int64 shown = 0;
        if (tree.tileCount(d) != set.count(d))
            out << "depth " << d << ": " << tree.tileCount(d) << " tiles instead of " << set.count(d) << "\n";
        if (tree.tileCount(d) > 0) deepest = d;
        for (OST::int64 n = 0; n < tree.tileCount(d); ++n, ++running) {
            auto const& tile = tree.tile(n, d);
            const TileKey key = keyOf(tile);
            if (tile.depth() != d || tile.index() != n || !tile.valid()) out << "wrong record of tile " << key << "\n";
            if (&tree.tile(running) != &tile) out << "running number " << running << " is not " << key << "\n";
            if (!set.has(key)) out << "extra tile " << key << "\n";
            const TreeIndex parent = tile.parentTreeIndex();
            if (d == 0 ? parent.valid()
                       : parent.depth != d - 1 || keyOf(tree.tile(parent)) != TileSet<Tr>::parentOf(key))
                out << "wrong parent of " << key << "\n";
            bool leaf = true;
            for (int cell = 0; cell < Tr::childCount; ++cell) {
                const bool expected = d < Tr::maxDepth && set.has(TileSet<Tr>::childOf(key, cell));
                const int3 ijk = OST::TileTree3D::cubeIndex(Tr::branching, cell);
                const TreeIndex child = tile.childTreeIndex(ijk);
                leaf = leaf && !expected;
                if (!expected) shown += Tr::voxelCount / Tr::childCount;
                if (tile.isLeaf(cell) == expected || tile.isLeaf(ijk) == expected
                    || (tile.childIndex(cell) >= 0) != expected)
                    out << "cell " << cell << " of " << key
                        << (expected ? " lacks its child\n" : " has a child too many\n");
                else if (expected
                         && (child.depth != d + 1 || keyOf(tree.tile(child)) != TileSet<Tr>::childOf(key, cell)))
                    out << "cell " << cell << " of " << key << " leads to another tile\n";
            }
            if (tile.isLeaf() != leaf) out << "isLeaf() of " << key << " is " << tile.isLeaf() << "\n";
        }
        if (tree.voxelCount(d) != shown) out << "depth " << d << ": voxelCount " << tree.voxelCount(d) << "\n";
        if (tree.voxelDataCount(d) != set.count(d) * Tr::voxelCount) out << "depth " << d << ": voxelDataCount\n";
    }
    if (tree.tileCount(-1) != running) out << "tileCount(-1) is " << tree.tileCount(-1) << "\n";
    if (tree.voxelDataCount(-1) != running * Tr::voxelCount) out << "voxelDataCount(-1)\n";
    if (tree.deepestDepth() != deepest) out << "deepestDepth() is " << tree.deepestDepth() << "\n";
    return out.str();
}

/// A place inside tile space: mostly near one of a few centres (so that tiles meet), sometimes at its border, or anywhere.
template <class Tr> Place randomPlace(Random& random, std::int64_t spread)
{
    using Set = TileSet<Tr>;
    const std::int64_t centres[] = {0, 123456789, Set::rangeMin, Set::rangeMax};
    Place p;
    const std::int64_t kind = random.below(12);
    for (std::int64_t& x : p) {
        const std::int64_t centre = kind < 7 ? centres[0] : kind < 9 ? centres[1] : centres[random.between(1, 3)];
        x = kind == 11 ? random.between(Set::rangeMin, Set::rangeMax) : centre + random.between(-spread, spread);
        x = std::clamp(x, Set::rangeMin, Set::rangeMax);
    }
    return p;
}

/// A random tree and its twin. Depths up to the finest; a few hundred tiles plus their ancestors.
template <class Tr> void addRandomTiles(Random& random, Tree<Tr>& tree, TileSet<Tr>& set, int count)
{
    auto accessor = tree.tileAccessor();
    for (int n = 0; n < count; ++n) {
        const int depth =
            static_cast<int>(random.oneIn(3) ? random.between(0, Tr::maxDepth) : Tr::maxDepth - random.below(3));
        const Place p = randomPlace<Tr>(random, 12 * TileSet<Tr>::tileWidth(Tr::maxDepth));
        accessor.addTile(static_cast<int>(p[0]), static_cast<int>(p[1]), static_cast<int>(p[2]), depth);
        set.add(p, depth);
    }
}

/// A tile of the set that the tree surely holds, as an index of the tree.
template <class Tr> TreeIndex indexOf(Tree<Tr> const& tree, TileKey const& key)
{
    for (OST::int64 n = 0; n < tree.tileCount(key.depth); ++n)
        if (keyOf(tree.tile(n, key.depth)) == key) return {n, key.depth};
    return {};
}

/// Asks for the children whose cell is cut by a sphere around the origin: a band of tiles at `deepest`, some thousand of
/// them for a radius of 9 tiles.
template <class Tr> struct SphereBand {
    int deepest;
    double radius;
    explicit SphereBand(int deepestDepth, double radiusInTiles = 9)
        : deepest(deepestDepth), radius(radiusInTiles * double(TileSet<Tr>::tileWidth(deepestDepth)))
    {}
    bool operator()(TileKey const& key, int cell) const
    {
        if (key.depth >= deepest) return false;
        const double w = double(TileSet<Tr>::cellWidth(key.depth));
        const TileKey child = TileSet<Tr>::childOf(key, cell);
        double nearest = 0, farthest = 0;
        for (int a = 0; a < 3; ++a) {
            const double low = double(child.low[a]), high = low + w;
            const double inner = low > 0 ? low : high < 0 ? -high : 0, outer = std::max(std::abs(low), std::abs(high));
            nearest += inner * inner;
            farthest += outer * outer;
        }
        return nearest <= radius * radius && radius * radius <= farthest;
    }
    template <class TileT> bool operator()(TileT const& tile, int3 const& cell) const
    {
        return (*this)(keyOf(tile), OST::TileTree3D::flatIndex(Tr::branching, cell.x, cell.y, cell.z));
    }
};

/// Grows a tree by a predicate on (tile, cell) from its roots.
template <class Tr, class Wants>
void growAll(Tree<Tr>& tree, Wants const& wants, OST::TileTree3D::TileList<Tr>* added = nullptr,
             int maxDepth = Tr::maxDepth)
{
    tree.template refine<Wants, 0>(wants, TreeIndex(), 0, maxDepth, added);
}

}  // namespace tilegrid::test
