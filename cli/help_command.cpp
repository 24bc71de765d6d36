#include "cli/help_command.h"

#include "graph/error.h"
#include "graph/help.h"
#include "graph/registry.h"
#include "graph/suggest.h"

#include <ostream>

namespace tilegrid::cli {

void printNodes(Options const& options, std::ostream& results)
{
    std::vector<std::string> names;
    bool json = false;
    for (std::size_t n = 1; n < options.words.size(); ++n) {
        if (options.words[n] == "--json")
            json = true;
        else
            names.push_back(options.words[n]);
    }
    std::vector<graph::NodeInfo> chosen;
    for (std::string const& name : names) {
        graph::NodeInfo const* node = graph::findNode(name);
        if (!node) throw graph::UsageError("nodes: there is no node '" + name + "'." + graph::suggestion(name, graph::nodeNames()));
        chosen.push_back(*node);
    }
    if (json)
        results << graph::nodesToJson(names.empty() ? graph::nodes() : chosen);
    else if (names.empty())
        results << graph::nodeList();
    for (graph::NodeInfo const& node : chosen)
        if (!json) results << graph::nodeHelp(node);
}

void printHelp(Options const& options, std::ostream& results)
{
    graph::NodeInfo const* node = options.words.empty() ? nullptr : graph::findNode(options.words.front());
    if (node)
        results << graph::nodeHelp(*node);
    else
        results << usageText() << "\nnodes:\n" << graph::nodeList();
}

}  // namespace tilegrid::cli
