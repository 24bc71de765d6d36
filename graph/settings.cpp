#include "graph/settings.h"

#include "graph/error.h"
#include "graph/registry.h"
#include "graph/suggest.h"

namespace tilegrid::graph {

namespace {

struct Setting {
    std::string step, name, value;
};

Setting parseSetting(std::string const& assignment)
{
    const std::size_t equals = assignment.find('=');
    if (equals == std::string::npos || equals == 0)
        throw UsageError("--set " + assignment + ": write name=value, or STEP.name=value for one step.");
    Setting setting{{}, assignment.substr(0, equals), assignment.substr(equals + 1)};
    if (const std::size_t dot = setting.name.find('.'); dot != std::string::npos) {
        setting.step = setting.name.substr(0, dot);
        setting.name = setting.name.substr(dot + 1);
    }
    return setting;
}

/// True if the step has the parameter, and it means something for the step's file, also by the way.
bool takes(Step const& step, std::string const& name)
{
    NodeInfo const* node = findNode(step.node);
    ParameterInfo const* parameter = node ? node->parameter(name) : nullptr;
    const std::optional<std::string> file = step.file();
    return parameter && appliesByTheWay(*parameter, file ? &*file : nullptr);
}

Step& namedStep(Graph& graph, std::string const& name, std::string const& assignment)
{
    std::vector<std::string> names;
    for (std::size_t n = 0; n < graph.steps.size(); ++n) {
        Step& step = graph.steps[n];
        if (step.as == name || std::to_string(n + 1) == name) return step;
        if (!step.as.empty()) names.push_back(step.as);
    }
    throw UsageError("--set " + assignment + ": no step has the name or number '" + name + "'." +
                     (names.empty() ? " No step of this graph has a name." : " Names: " + listed(names) + ".") + suggestion(name, names));
}

}  // namespace

void applySetting(Graph& graph, std::string const& assignment)
{
    const Setting setting = parseSetting(assignment);
    if (!setting.step.empty()) {
        Step& step = namedStep(graph, setting.step, assignment);
        NodeInfo const* node = findNode(step.node);
        if (node && !node->parameter(setting.name))
            throw UsageError("--set " + assignment + ": '" + step.node + "' has no parameter '" + setting.name + "'." +
                             suggestion(setting.name, node->parameterNames()));
        step.set(setting.name, setting.value);
        return;
    }
    bool found = false;
    std::vector<std::string> names;
    for (Step& step : graph.steps) {
        if (takes(step, setting.name)) {
            step.set(setting.name, setting.value);
            found = true;
        }
        if (NodeInfo const* node = findNode(step.node))
            for (std::string const& name : node->parameterNames())
                if (!contains(names, name)) names.push_back(name);
    }
    if (!found)
        throw UsageError("--set " + assignment + ": no step takes a parameter '" + setting.name + "'." +
                         suggestion(setting.name, names));
}

}  // namespace tilegrid::graph
