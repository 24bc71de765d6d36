#include "benchmarks/support/bench.h"
#include "benchmarks/support/loads.h"

/// Point location: which tile (leaf) holds a place.

namespace {

using namespace bench;

constexpr std::size_t kMostQueries = 1'000'000;

template <class Tr> std::uint64_t locate(Container<Tr> const& tree, std::vector<int3> const& places)
{
    std::atomic<std::uint64_t> sum{0};
    tilegrid::parallel::forRanges(0, std::int64_t(places.size()), 4096, [&](std::int64_t begin, std::int64_t end) {
        const auto accessor = tree.tileAccessor();
        std::uint64_t local = 0;
        for (std::int64_t n = begin; n < end; ++n) {
            const TreeIndex found = accessor.find(places[n].x, places[n].y, places[n].z, Tr::maxDepth);
            local += std::uint64_t(found.index) + std::uint64_t(found.depth);
        }
        sum += local;
    });
    return sum;
}

/// The coherent order: tile after tile, three places in each.
template <class Tr> std::vector<int3> coherentPlaces(Container<Tr> const& tree)
{
    std::vector<int3> places;
    for (OST::int64 n = 0; n < tree.tileCount(Tr::maxDepth) && places.size() + 3 <= kMostQueries; ++n) {
        const int3 corner = tree.tile(n, Tr::maxDepth).tijk();
        for (int step = 0; step < 3; ++step) places.push_back(corner + int3(step, 1, Tr::width - 1 - step));
    }
    return places;
}

using Places = std::shared_ptr<std::vector<int3>>;

template <class Tr>
void addAll(std::string const& structure, Load const& load, std::shared_ptr<Container<Tr>> tree, Places random, Places box, Places coherent)
{
    for (int threads : {1, 2}) {
        const auto ours = [&](std::string const& what, std::shared_ptr<Container<Tr>> where, Places places) {
            add(what + "/" + structure + "/" + load.name, "ours", threads, std::int64_t(places->size()),
                [where, places] { return locate(std::as_const(*where), *places); });
        };
        const auto peer = [&](std::string const& what, std::shared_ptr<PeerGrid> grid, Places places) {
            add(what + "/" + structure + "/" + load.name, "peer tree", threads, std::int64_t(places->size()),
                [grid, places] { return grid->locateByTree(*places); });
            add(what + "/" + structure + "/" + load.name, "peer accessor", threads, std::int64_t(places->size()),
                [grid, places] { return grid->locateByAccessor(*places); });
        };
        ours("locate_random_band", tree, random);
        peer("locate_random_band", load.peer, random);
        ours("locate_random_box", tree, box);
        peer("locate_random_box", load.peer, box);
        ours("locate_coherent", tree, coherent);
        peer("locate_coherent", load.peer, coherent);
    }
}

/// The band grown in two goes: every fourth tile after all others, so that hardly a brick is in order.
template <class Tr> void addAppended(std::string const& structure, Load const& load, Places random)
{
    auto tree = std::make_shared<Container<Tr>>("tree");
    const auto whole = treeOf<Tr>(load);
    for (int pass = 0; pass < 2; ++pass) {
        auto accessor = tree->tileAccessor();
        for (OST::int64 n = 0; n < whole->tileCount(Tr::maxDepth); ++n)
            if ((n % 4 == 0) == (pass == 1)) {
                const int3 p = whole->tile(n, Tr::maxDepth).tijk();
                accessor.addTile(p.x, p.y, p.z, Tr::maxDepth);
            }
    }
    for (int threads : {1, 2}) {
        const std::string name = "locate_after_append/" + structure + "/" + load.name;
        add(name, "ours", threads, std::int64_t(random->size()), [tree, random] { return locate(std::as_const(*tree), *random); });
        add(name, "peer tree", threads, std::int64_t(random->size()), [grid = load.peer, random] { return grid->locateByTree(*random); });
        add(name, "peer accessor", threads, std::int64_t(random->size()), [grid = load.peer, random] { return grid->locateByAccessor(*random); });
    }
}

Places limited(std::vector<int3> places)
{
    places.resize(std::min(places.size(), kMostQueries));
    return std::make_shared<std::vector<int3>>(std::move(places));
}

}  // namespace

int main(int argc, char** argv)
{
    for (Load const& load : loads(/*withBunny*/ true)) {
        const Places random = limited(shuffled(load.band, 1)), box = limited(randomInBox(load.band, kMostQueries, 2));
        const auto binary = treeOf<BinaryTraits>(load);
        addAll<BinaryTraits>("binary", load, binary, random, box, limited(coherentPlaces(*binary)));
        const auto quinary = treeOf<QuinaryTraits>(load);
        addAll<QuinaryTraits>("quinary", load, quinary, random, box, limited(coherentPlaces(*quinary)));
        addAppended<BinaryTraits>("binary", load, random);
        addAppended<QuinaryTraits>("quinary", load, random);
    }
    return runAll(argc, argv, "lookup");
}
