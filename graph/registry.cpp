#include "graph/registry.h"

#include "graph/node_families.h"

#include <algorithm>
#include <iterator>

namespace tilegrid::graph {

std::vector<NodeInfo> const& nodes()
{
    static const std::vector<NodeInfo> all = [] {
        std::vector<NodeInfo> joined;
        for (auto family : {fileNodes, shapeNodes, reportNodes, renderNodes, queryNodes, constructionNodes, propertyNodes, fogNodes, gradingNodes,
                            levelSetNodes, mergeNodes, algorithmNodes})
            std::ranges::move(family(), std::back_inserter(joined));
        return joined;
    }();
    return all;
}

NodeInfo const* findNode(std::string_view name)
{
    const auto found = std::ranges::find(nodes(), name, &NodeInfo::name);
    return found == nodes().end() ? nullptr : &*found;
}

std::vector<std::string> nodeNames()
{
    std::vector<std::string> names;
    for (NodeInfo const& node : nodes()) names.push_back(node.name);
    return names;
}

}  // namespace tilegrid::graph
