#include "graph/plan.h"

#include "graph/error.h"
#include "graph/registry.h"
#include "graph/suggest.h"
#include "io/error.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <set>
#include <unistd.h>

namespace tilegrid::graph {

namespace {

bool isResultName(std::string const& name)
{
    const auto plain = [](unsigned char c) { return std::isalnum(c) || c == '_'; };
    return std::isalpha(static_cast<unsigned char>(name.front())) && std::all_of(name.begin(), name.end(), plain);
}

class Checker {
public:
    Plan check(Graph const& graph)
    {
        if (graph.steps.empty()) problem("The graph has no steps. Begin with read or create_empty_volume.");
        for (Step const& step : graph.steps) addStep(step);
        if (!problems_.empty()) throw UsageError(problems_);
        markLastUses();
        return std::move(plan_);
    }

private:
    struct Named {
        std::string name;
        std::size_t step;
    };

    void problem(std::string const& text) { problems_ += (problems_.empty() ? "" : "\n") + text; }
    void stepProblem(std::string const& text) { problem(label_ + ": " + text); }

    void addStep(Step const& step)
    {
        const std::size_t index = plan_.steps.size();
        label_ = stepLabel(index, step.node);
        PlannedStep planned;
        planned.label = label_;
        planned.node = findNode(step.node);
        if (planned.node) {
            checkInputs(step, *planned.node, planned);
            checkParameters(step, *planned.node, planned.arguments);
        } else {
            problem("step " + std::to_string(index + 1) + ": there is no node '" + step.node + "'." + suggestion(step.node, nodeNames()) +
                    " `tilegrid nodes` lists them.");
        }
        addResult(step, planned.node, index);
        plan_.steps.push_back(std::move(planned));
    }

    void checkInputs(Step const& step, NodeInfo const& node, PlannedStep& planned)
    {
        if (!step.inputs.empty() && !node.takesInputs(step.inputs.size())) {
            stepProblem("it has " + std::to_string(step.inputs.size()) + " inputs, but '" + step.node + "' takes " +
                        std::to_string(node.inputs.size()) + ".");
            return;
        }
        for (std::size_t n = 0; n < std::max(step.inputs.size(), node.inputs.size()); ++n)
            planned.inputs.push_back({source(step.inputs.empty() ? kLastResult : step.inputs[n], node.input(n))});
    }

    /// The step whose result is meant; 0 after a problem.
    std::size_t source(std::string const& name, InputInfo const& input)
    {
        if (name == kLastResult) {
            if (!results_.empty()) return results_.back();
            stepProblem("there is no result yet to use as '" + input.name + "'. Read a file first, as in: read FILE.vdb ! ...");
            return 0;
        }
        for (Named const& named : names_)
            if (named.name == name) return named.step;
        std::vector<std::string> candidates;
        for (Named const& named : names_) candidates.push_back(named.name);
        stepProblem("no earlier step has a result '" + name + "', and there is no such file." + suggestion(name, candidates) +
                    (candidates.empty() ? " Name a result with as=NAME." : " Results: " + listed(candidates) + "."));
        return 0;
    }

    void checkParameters(Step const& step, NodeInfo const& node, Arguments& arguments)
    {
        std::string const* file = knownFile(step, node);
        std::set<std::string> seen;
        for (auto const& [name, value] : step.parameters) {
            ParameterInfo const* parameter = node.parameter(name);
            if (!seen.insert(name).second)
                stepProblem("'" + name + "' is given twice.");
            else if (!parameter)
                stepProblem("'" + step.node + "' has no parameter '" + name + "'." + suggestion(name, node.parameterNames()) +
                            (node.parameters.empty() ? " It has none." : " It has " + listed(node.parameterNames()) + "."));
            else if (!applies(*parameter, file))
                stepProblem("'" + name + "' means nothing for '" + *file + "': it is for " + listed(parameter->onlyFor) + ". Leave it out.");
            else if (!parameter->needs.empty() && !step.parameter(parameter->needs))
                stepProblem("'" + name + "' means nothing without '" + parameter->needs + "'. Give both, or leave it out.");
            else
                setArgument(*parameter, value, arguments);
        }
        for (ParameterInfo const& parameter : node.parameters)
            if (!seen.contains(parameter.name)) setDefault(parameter, file, arguments);
    }

    /// The file of the step, if its format is known; another problem is reported with the parameter.
    static std::string const* knownFile(Step const& step, NodeInfo const& node)
    {
        ParameterInfo const* parameter = node.parameter("file");
        std::string const* file = parameter ? step.parameter("file") : nullptr;
        return file && contains(parameter->endings, endingOf(*file)) ? file : nullptr;
    }

    void setArgument(ParameterInfo const& parameter, std::string const& value, Arguments& arguments)
    {
        try {
            arguments.set(parameter.name, parseValue(parameter, value));
        } catch (UsageError const& error) {
            const auto named = [&](Named const& result) { return result.name == value; };
            const bool isResult = parameter.type == ParameterType::kOutputFile && std::any_of(names_.begin(), names_.end(), named);
            stepProblem("'" + parameter.name + "': " + error.what() + (isResult ? " '" + value + "' is a result: name the file after it." : ""));
        }
    }

    void setDefault(ParameterInfo const& parameter, std::string const* file, Arguments& arguments)
    {
        const bool isNone = parameter.defaultText && parameter.defaultText->empty();
        if (isNone && parameter.type == ParameterType::kVector)
            arguments.set(parameter.name, std::vector<double>());  // which no text means
        else if (isNone && parameter.type == ParameterType::kOutputFile)
            arguments.set(parameter.name, std::string());
        else if (isNone && parameter.type == ParameterType::kLength)
            return;  // the step decides
        else if (parameter.defaultText)
            arguments.set(parameter.name, parseValue(parameter, *parameter.defaultText));
        else if (file && contains(parameter.optionalFor, endingOf(*file)))
            return;
        else if (parameter.onlyFor.empty() || (file && applies(parameter, file)))
            stepProblem("'" + parameter.name + "' is missing. Give " + parameter.name + "=" +
                        (parameter.choices.empty() ? typeName(parameter.type) : listed(parameter.choices)) + ": " + parameter.help + ".");
    }

    void addResult(Step const& step, NodeInfo const* node, std::size_t index)
    {
        if (!step.as.empty()) {
            const auto named = [&](Named const& result) { return result.name == step.as; };
            if (node && !node->hasResult)
                stepProblem("'" + step.node + "' leaves no result that 'as=" + step.as + "' could name. Leave it out.");
            else if (!isResultName(step.as))
                stepProblem("'" + step.as + "' cannot name a result: use letters, digits and _, and begin with a letter.");
            else if (std::any_of(names_.begin(), names_.end(), named))
                stepProblem("an earlier step has a result '" + step.as + "' already. Choose another name.");
            else
                names_.push_back({step.as, index});
        }
        // An unknown node may have been meant to have a result; later steps shall not be blamed for its absence.
        if (!node || node->hasResult) results_.push_back(index);
    }

    void markLastUses()
    {
        for (auto step = plan_.steps.rbegin(); step != plan_.steps.rend(); ++step)
            for (auto input = step->inputs.rbegin(); input != step->inputs.rend(); ++input) {
                bool& used = plan_.steps[input->step].resultUsed;
                input->lastUse = !used;
                used = true;
            }
    }

    Plan plan_;
    std::string label_, problems_;
    std::vector<std::size_t> results_;
    std::vector<Named> names_;
};

std::string inputProblem(std::string const& file)
{
    std::error_code error;
    const auto status = std::filesystem::status(file, error);
    if (!std::filesystem::exists(status)) return "there is no file '" + file + "'. Check the name and the folder.";
    if (std::filesystem::is_directory(status)) return "'" + file + "' is a folder. Name a file.";
    if (access(file.c_str(), R_OK) != 0) return "'" + file + "' may not be read. Check its permissions.";
    return {};
}

std::string outputProblem(std::string const& file)
{
    std::error_code error;
    if (std::filesystem::is_directory(file, error)) return "'" + file + "' is a folder. Name a file.";
    std::filesystem::path folder = std::filesystem::absolute(file, error).parent_path();
    while (folder.has_relative_path() && !std::filesystem::exists(folder, error)) folder = folder.parent_path();
    if (!std::filesystem::is_directory(folder, error))
        return "'" + file + "' cannot be created: '" + folder.string() + "' is not a folder. Choose another place.";
    if (access(folder.c_str(), W_OK | X_OK) != 0)
        return "'" + file + "' cannot be created: the folder '" + folder.string() + "' may not be written to. Choose another place.";
    return {};
}

}  // namespace

bool applies(ParameterInfo const& parameter, std::string const* file)
{
    return parameter.onlyFor.empty() || !file || contains(parameter.onlyFor, endingOf(*file));
}

Plan makePlan(Graph const& graph)
{
    return Checker().check(graph);
}

void checkFiles(Plan const& plan)
{
    std::set<std::filesystem::path> written;
    std::string problems;
    for (PlannedStep const& step : plan.steps) {
        for (ParameterInfo const& parameter : step.node->parameters) {
            const bool input = parameter.type == ParameterType::kInputFile, output = parameter.type == ParameterType::kOutputFile;
            if (!input && !output) continue;
            std::string const& file = step.arguments.text(parameter.name);
            if (file.empty()) continue;
            const auto place = std::filesystem::path(file).lexically_normal();
            std::string problem;
            if (output)
                problem = outputProblem(file);
            else if (!written.contains(place))
                problem = inputProblem(file);
            if (!problem.empty()) problems += (problems.empty() ? "" : "\n") + step.label + ": " + problem;
            if (output) written.insert(place);
        }
    }
    if (!problems.empty()) throw io::InputError(problems);
}

}  // namespace tilegrid::graph
