#include "graph/registry.h"

#include "graph/node_families.h"

#include <algorithm>
#include <utility>

namespace tilegrid::graph {

namespace {

/// The families in the order of help, and the group of those of their nodes that name none.
struct Family {
    char const* group;
    std::vector<NodeInfo> (*nodes)();
};
constexpr Family kFamilies[] = {
    {"files", fileNodes},           {"shapes", shapeNodes},          {"shapes", constructionNodes}, {"merging", mergeNodes},
    {"level sets", levelSetNodes},  {"properties", propertyNodes},   {"properties", fogNodes},      {"resolution", gradingNodes},
    {"resampling", algorithmNodes}, {"reports", reportNodes},        {"reports", queryNodes},       {"pictures", renderNodes},
};

}  // namespace

std::vector<NodeInfo> const& nodes()
{
    static const std::vector<NodeInfo> all = [] {
        std::vector<NodeInfo> joined;
        for (Family const& family : kFamilies)
            for (NodeInfo& node : family.nodes()) {
                if (node.group.empty()) node.group = family.group;
                joined.push_back(std::move(node));
            }
        return joined;
    }();
    return all;
}

std::vector<std::string> const& nodeGroups()
{
    static const std::vector<std::string> all = [] {
        std::vector<std::string> groups;
        for (NodeInfo const& node : nodes())
            if (!contains(groups, node.group)) groups.push_back(node.group);
        return groups;
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
