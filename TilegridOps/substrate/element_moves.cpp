#include "TilegridOps/substrate/element_moves.h"

#include "TilegridOps/substrate/channel_core.h"
#include "TilegridOps/substrate/topology.h"

#include <map>
#include <set>
#include <tuple>

namespace OST::TileTree3D {

namespace {

using Address = std::tuple<int, int64, std::int32_t>;

Address addressOf(ElementTreeIndex const& element)
{
    return {element.tile.depth, element.tile.index, element.element};
}

}  // namespace

template <class Tr>
void updateElements(TileDataElementAccessorT<Tr> const& accessor, Component& pointTopology, OST::Object& object)
{
    auto* topology = dynamic_cast<PointTopology<Tr>*>(&pointTopology);
    if (!topology) return;

    // The first note for an element counts, and notes for elements or tiles that do not exist are dropped.
    std::set<Address> leaving;
    std::map<std::pair<int, int64>, std::vector<ElementTreeIndex>> arriving;
    for (auto const& move : accessor.moves()) {
        const bool elementExists = move.from.element >= 0 && move.from.element < topology->elementCount(move.from.tile);
        const bool tileExists = move.to.valid() && move.to.index < topology->tileCount(move.to.depth);
        if (elementExists && tileExists && leaving.insert(addressOf(move.from)).second)
            arriving[{move.to.depth, move.to.index}].push_back(move.from);
    }

    std::vector<std::vector<ElementToFrom>> moves(Tr::levels);
    std::vector<std::vector<std::size_t>> counts(Tr::levels);
    for (int depth = 0; depth < Tr::levels; ++depth) {
        counts[depth].resize(static_cast<std::size_t>(topology->tileCount(depth)));
        for (int64 n = 0; n < topology->tileCount(depth); ++n) {
            const TreeIndex tile{n, depth};
            std::int32_t next = 0;
            const auto take = [&](ElementTreeIndex const& from) { moves[depth].push_back({{tile, next++}, from}); };
            for (std::int32_t element = 0; element < topology->elementCount(tile); ++element)
                if (!leaving.count({depth, n, element})) take({tile, element});
            if (auto list = arriving.find({depth, n}); list != arriving.end())
                for (ElementTreeIndex const& from : list->second) take(from);
            counts[depth][n] = static_cast<std::size_t>(next);
        }
    }

    for (Corvid::String const& name : object.componentRange()) {
        auto channel = object.extractComponent<PointChannelCore>(name);
        if (!channel) continue;
        channel->updateElements(moves, counts);
        object.putComponent(std::move(channel));
    }
    for (int depth = 0; depth < Tr::levels; ++depth)
        for (std::size_t n = 0; n < counts[depth].size(); ++n)
            topology->setElementCount({static_cast<int64>(n), depth}, static_cast<std::int32_t>(counts[depth][n]));
}

template TILEGRID_API void updateElements(TileDataElementAccessorT<BinaryTraits> const&, Component&, OST::Object&);
template TILEGRID_API void updateElements(TileDataElementAccessorT<QuinaryTraits> const&, Component&, OST::Object&);

}  // namespace OST::TileTree3D
