#include "cli/help_command.h"

#include "cli/option_table.h"
#include "cli/self_description.h"
#include "graph/chain.h"
#include "graph/error.h"
#include "graph/help.h"
#include "graph/registry.h"
#include "graph/suggest.h"

#include <algorithm>
#include <ostream>

namespace tilegrid::cli {

namespace {

/// Commands that are no steps.
const std::vector<std::string> kCommands = {"run", "nodes", "help"};

graph::NodeInfo const& nodeNamed(std::string const& command, std::string const& name)
{
    if (graph::NodeInfo const* node = graph::findNode(name)) return *node;
    throw graph::UsageError(command + ": there is no node '" + name + "'." + graph::suggestion(name, graph::nodeNames()));
}

/// What `help TOPIC` prints: a step, a group of steps or the command itself.
std::string helpOn(std::string const& topic)
{
    if (graph::NodeInfo const* node = graph::findNode(topic)) return graph::nodeHelp(*node);
    if (graph::contains(graph::nodeGroups(), topic)) return graph::nodeList(topic);
    if (topic == "formats") return graph::formatList();
    if (graph::contains(kCommands, topic)) return usageText();
    std::vector<std::string> topics = graph::nodeNames();
    topics.insert(topics.end(), graph::nodeGroups().begin(), graph::nodeGroups().end());
    topics.push_back("formats");
    throw graph::UsageError("help: there is no node '" + topic + "', and no group of nodes." + graph::suggestion(topic, topics) + " `tilegrid nodes` lists them.");
}

/// The first word of the step that a word at `place` would belong to, also where it stands before it; empty if there is none.
std::string stepAt(std::vector<std::string> const& words, std::size_t place)
{
    const auto isEnd = [](std::string const& word) { return word == graph::kStepEnd || word == graph::kStepEndWord; };
    const auto end = words.begin() + std::ptrdiff_t(std::min(place, words.size()));
    const auto begin = std::find_if(std::make_reverse_iterator(end), words.rend(), isEnd).base();
    return begin == words.end() ? "" : *begin;
}

}  // namespace

void printNodes(Options const& options, std::ostream& results)
{
    bool json = false;
    std::vector<graph::NodeInfo> chosen;
    for (auto word = options.words.begin() + 1; word != options.words.end(); ++word) {
        if (*word == "--json")
            json = true;
        else if (*word != "--")
            chosen.push_back(nodeNamed("nodes", *word));
    }
    const bool all = chosen.empty();
    if (json)
        results << graph::nodesToJson(all ? graph::nodes() : chosen);
    else if (all)
        results << graph::nodeList();
    for (graph::NodeInfo const& node : chosen)
        if (!json) results << graph::nodeHelp(node);
}

void printHelp(Options const& options, std::ostream& results)
{
    std::vector<std::string> words = options.words;
    std::erase(words, "--");
    const bool command = !words.empty() && words.front() == "help";
    if (!options.description.empty()) {
        results << (options.description == "man" ? manPage() : bashCompletion());
        return;
    }
    if (command && words.size() > 1) {
        // A group may be of two words.
        std::string topic = words[1];
        for (std::size_t n = 2; n < words.size(); ++n) topic += " " + words[n];
        results << helpOn(topic);
        return;
    }
    const std::string step = command ? "" : stepAt(words, options.helpAt);
    if (graph::findNode(step))
        results << helpOn(step);
    else
        results << usageText() << "\n" << graph::nodeList();
}

}  // namespace tilegrid::cli
