#include "graph/plan.h"

#include "graph/error.h"
#include "graph/registry.h"
#include "graph/suggest.h"
#include "io/error.h"
#include "io/standard_stream.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <set>
#include <unordered_map>
#include <utility>
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
        for (Step const& step : graph.steps) {
            // More would help nobody, and a message for each of many steps takes long to make.
            constexpr int kMostProblems = 20;
            if (problemCount_ >= kMostProblems) {
                problem("The steps after it were not checked.");
                break;
            }
            addStep(step);
        }
        if (!problems_.empty()) throw UsageError(problems_);
        markLastUses();
        return std::move(plan_);
    }

private:
    void problem(std::string const& text)
    {
        ++problemCount_;
        problems_ += (problems_.empty() ? "" : "\n") + text;
    }
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
        if (const auto named = stepOf_.find(name); named != stepOf_.end()) return named->second;
        // The last ones are near, and more than a few help nobody.
        constexpr std::size_t kMostNames = 20;
        const std::vector<std::string> candidates(names_.end() - std::ptrdiff_t(std::min(names_.size(), kMostNames)), names_.end());
        stepProblem("no earlier step has a result '" + name + "', and there is no such file." + suggestion(name, candidates) +
                    (candidates.empty() ? " Name a result with as=NAME." : " Results: " + listed(candidates) + "."));
        return 0;
    }

    void checkParameters(Step const& step, NodeInfo const& node, Arguments& arguments)
    {
        const std::optional<std::string> known = knownFile(step, node);
        std::string const* file = known ? &*known : nullptr;
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
            else if (!parameter->insteadOf.empty() && step.parameter(parameter->insteadOf) && seen.contains(parameter->insteadOf))
                stepProblem("'" + name + "' and '" + parameter->insteadOf + "' say the same. Give one of them.");
            else if (!parameter->needs.empty() && !step.parameter(parameter->needs))
                stepProblem("'" + name + "' means nothing without '" + parameter->needs + "'. Give both, or leave it out.");
            else if (name == "format" && step.parameter("file") && *step.parameter("file") != kStandardStream)
                stepProblem("'format' is for standard input and output (-): the name '" + *step.parameter("file") + "' tells it. Leave it out.");
            else
                setArgument(*parameter, fileName(step, *parameter, value), arguments);
        }
        for (ParameterInfo const& parameter : node.parameters)
            if (!seen.contains(parameter.name) && !seen.contains(parameter.insteadOf)) setDefault(node, parameter, file, arguments);
    }

    /// The file of the step, if its format is known; another problem is reported with the parameter.
    static std::optional<std::string> knownFile(Step const& step, NodeInfo const& node)
    {
        ParameterInfo const* parameter = node.parameter("file");
        std::optional<std::string> file = parameter ? step.file() : std::nullopt;
        return file && contains(parameter->endings, endingOf(*file)) ? file : std::nullopt;
    }

    /// The value, or what stands for `-`: a name with the ending of its format.
    std::string fileName(Step const& step, ParameterInfo const& parameter, std::string const& value)
    {
        if (value != kStandardStream || parameter.streamed.empty()) return value;
        std::string const* format = step.parameter("format");
        const std::string name = parameter.streamed.size() == 1 ? value + parameter.streamed.front() : format ? value + "." + *format : value;
        if (name == value) return value;
        bool& used = parameter.type == ParameterType::kInputFile ? plan_.readsInput : plan_.writesOutput;
        if (std::exchange(used, true))
            stepProblem(parameter.type == ParameterType::kInputFile ? "an earlier step takes standard input already. Read it once, and name the result."
                                                                    : "an earlier step writes to standard output already. Name a file.");
        return name;
    }

    void setArgument(ParameterInfo const& parameter, std::string const& value, Arguments& arguments)
    {
        try {
            arguments.set(parameter.name, parseValue(parameter, value));
        } catch (UsageError const& error) {
            const bool isResult = parameter.type == ParameterType::kOutputFile && stepOf_.contains(value);
            stepProblem("'" + parameter.name + "': " + error.what() + (isResult ? " '" + value + "' is a result: name the file after it." : ""));
        }
    }

    void setDefault(NodeInfo const& node, ParameterInfo const& parameter, std::string const* file, Arguments& arguments)
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
            reportMissing(node, parameter);
    }

    /// Of two that stand for each other, the first speaks for both.
    void reportMissing(NodeInfo const& node, ParameterInfo const& parameter)
    {
        ParameterInfo const* other = parameter.insteadOf.empty() ? nullptr : node.parameter(parameter.insteadOf);
        if (other && other < &parameter) return;
        const auto asked = [](ParameterInfo const& missing) {
            return missing.name + "=" + (missing.choices.empty() ? typeName(missing.type) : listed(missing.choices)) + ": " + missing.help;
        };
        stepProblem("'" + parameter.name + "' is missing. Give " + asked(parameter) + (other ? "; or " + asked(*other) : "") + ".");
    }

    void addResult(Step const& step, NodeInfo const* node, std::size_t index)
    {
        if (!step.as.empty()) {
            if (node && !node->hasResult)
                stepProblem("'" + step.node + "' leaves no result that 'as=" + step.as + "' could name. Leave it out.");
            else if (!isResultName(step.as))
                stepProblem("'" + step.as + "' cannot name a result: use letters, digits and _, and begin with a letter.");
            else if (stepOf_.contains(step.as))
                stepProblem("an earlier step has a result '" + step.as + "' already. Choose another name.");
            else
                names_.push_back(step.as), stepOf_.emplace(step.as, index);
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
    std::vector<std::string> names_;
    std::unordered_map<std::string, std::size_t> stepOf_;
    int problemCount_ = 0;
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

bool appliesByTheWay(ParameterInfo const& parameter, std::string const* file)
{
    return applies(parameter, file) && !(file && contains(parameter.ownStepFor, endingOf(*file)));
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
            if (file.empty() || io::isStandardStream(file)) continue;
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
