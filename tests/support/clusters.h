#pragma once
#include "support/trees.h"

#include <functional>

namespace tilegrid::test {

/// Adds a tile to a tree and to its twin.
template <class Tr> void addBoth(Tree<Tr>& tree, TileSet<Tr>& set, Place const& p, int depth)
{
    tree.tileAccessor().addTile(static_cast<int>(p[0]), static_cast<int>(p[1]), static_cast<int>(p[2]), depth);
    set.add(p, depth);
}

/// Tiles around a place so dense that all kinds of neighbours occur: a few at each of the last depths up to `deepest`, all
/// within some tiles of the coarsest of them. Four depths in the binary structure; two in the other, and more tiles, as a tile
/// has more children.
template <class Tr>
void addCluster(Random& random, Tree<Tr>& tree, TileSet<Tr>& set, Place const& centre, int deepest, int count)
{
    const int depths = Tr::branching == 2 ? 4 : 2;
    const std::int64_t reach = TileSet<Tr>::tileWidth(std::max(deepest - depths + 1, 0));
    for (int n = 0; n < (Tr::branching == 2 ? count : 15 * count); ++n) {
        Place p = centre;
        for (std::int64_t& x : p)
            x = std::clamp(x + random.between(-reach, reach), TileSet<Tr>::rangeMin, TileSet<Tr>::rangeMax);
        addBoth(tree, set, p, deepest - static_cast<int>(random.below(std::min(deepest + 1, depths))));
    }
}

/// A tree of clusters: one inside tile space, one at each of its two ends, one not at the finest depth; and its twin.
template <class Tr> void addClusters(Random& random, Tree<Tr>& tree, TileSet<Tr>& set, int count)
{
    using Set = TileSet<Tr>;
    const Place low{Set::rangeMin, Set::rangeMin, Set::rangeMin}, high{Set::rangeMax, Set::rangeMax, Set::rangeMax};
    addCluster(random, tree, set, {5, -7, 11}, Tr::maxDepth, count);
    addCluster(random, tree, set, low, Tr::maxDepth, count / 2);
    addCluster(random, tree, set, high, 5, count / 2);
    addCluster(random, tree, set, {Set::rangeMax, 0, Set::rangeMin}, 3, count / 2);
}

/// The tile of a set one tile width away, else the finest that covers the place.
template <class Tr> std::optional<TileKey> neighborOf(TileSet<Tr> const& set, TileKey const& key, int direction)
{
    const std::int64_t w = TileSet<Tr>::tileWidth(key.depth);
    return set.find({key.low[0] + (direction / 9 - 1) * w, key.low[1] + (direction / 3 % 3 - 1) * w,
                     key.low[2] + (direction % 3 - 1) * w},
                    key.depth);
}

/// The least set that holds `set` and is graded as far as the tiles of depths max(minDepth + 1, 2) to maxDepth ask for it.
template <class Tr> TileSet<Tr> gradedClosure(TileSet<Tr> set, int minDepth, int maxDepth)
{
    // The set only grows, so a tile that was looked at once stays content.
    std::vector<TileKey> open = set.list();
    while (!open.empty()) {
        const TileKey key = open.back();
        open.pop_back();
        if (key.depth < std::max(minDepth + 1, 2) || key.depth > maxDepth) continue;
        for (int direction = 0; direction < 27; ++direction) {
            const auto neighbor = neighborOf(set, key, direction);
            if (!neighbor || neighbor->depth >= key.depth - 1) continue;
            const std::int64_t w = TileSet<Tr>::tileWidth(key.depth);
            const Place p{key.low[0] + (direction / 9 - 1) * w, key.low[1] + (direction / 3 % 3 - 1) * w,
                          key.low[2] + (direction % 3 - 1) * w};
            for (int d = neighbor->depth + 1; d < key.depth; ++d) open.push_back(TileSet<Tr>::keyAt(p, d));
            set.add(p, key.depth - 1);
        }
    }
    return set;
}

}  // namespace tilegrid::test
