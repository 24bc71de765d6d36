#include "graph/help.h"

#include "graph/registry.h"
#include "graph/suggest.h"
#include "io/formats.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <sstream>

namespace tilegrid::graph {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kColumns = 118;

Json inputToJson(InputInfo const& input)
{
    return {{"name", input.name}, {"help", input.help}, {"several", input.several}, {"repeated", input.repeated}};
}

Json parameterToJson(ParameterInfo const& parameter)
{
    Json object = {{"name", parameter.name}, {"type", typeName(parameter.type)}, {"help", parameter.help}};
    if (!parameter.unit.empty()) object["unit"] = parameter.unit;
    if (parameter.defaultText) object["default"] = *parameter.defaultText;
    object["required"] = !parameter.defaultText && parameter.insteadOf.empty();
    if (!parameter.insteadOf.empty()) object["instead_of"] = parameter.insteadOf;
    if (parameter.positional) object["positional"] = true;
    if (std::isfinite(parameter.range.min)) object[parameter.range.aboveMin ? "above" : "min"] = parameter.range.min;
    if (std::isfinite(parameter.range.max)) object["max"] = parameter.range.max;
    if (!parameter.choices.empty()) object["choices"] = parameter.choices;
    if (!parameter.endings.empty()) object["endings"] = parameter.endings;
    if (!parameter.onlyFor.empty()) object["only_for"] = parameter.onlyFor;
    if (!parameter.needs.empty()) object["needs"] = parameter.needs;
    return object;
}

}  // namespace

std::string inputWord(InputInfo const& input)
{
    return "[" + input.name + (input.repeated ? "...]" : "]");
}

std::string useLine(NodeInfo const& node)
{
    std::string line = node.name;
    for (InputInfo const& input : node.inputs) line += " " + inputWord(input);
    for (ParameterInfo const& parameter : node.parameters)
        if (parameter.positional) line += " " + parameter.name;
    for (ParameterInfo const& parameter : node.parameters) {
        if (parameter.positional) continue;
        ParameterInfo const* other = parameter.insteadOf.empty() ? nullptr : node.parameter(parameter.insteadOf);
        if (other && other < &parameter) continue;
        if (other)
            line += " " + parameter.name + "=...|" + other->name + "=...";
        else
            line += parameter.type == ParameterType::kBool ? " [--" + parameter.name + "]"
                    : parameter.defaultText                ? " [" + parameter.name + "=...]"
                                                           : " " + parameter.name + "=...";
    }
    return line + (node.hasResult ? " [as=NAME]" : "");
}

std::string detailOf(ParameterInfo const& parameter)
{
    std::vector<std::string> details;
    if (!parameter.choices.empty())
        details.push_back(listed(parameter.choices));
    else if (!parameter.endings.empty())
        details.push_back(listed(parameter.endings));
    else
        details.push_back(typeName(parameter.type));
    if (!parameter.unit.empty()) details.push_back("in " + parameter.unit);
    if (const std::string range = rangeText(parameter.range); !range.empty()) details.push_back(range);
    if (!parameter.onlyFor.empty()) details.push_back("only for " + listed(parameter.onlyFor));
    if (!parameter.needs.empty()) details.push_back("only with " + parameter.needs);
    if (!parameter.insteadOf.empty())
        details.push_back("this or " + parameter.insteadOf + " must be given");
    else if (!parameter.defaultText)
        details.push_back("must be given");
    else if (!parameter.defaultText->empty())
        details.push_back("default " + *parameter.defaultText);
    std::string text;
    for (std::string const& detail : details) text += (text.empty() ? "" : "; ") + detail;
    return text;
}

std::string padded(std::string text, std::size_t width)
{
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

std::string wrapped(std::string const& text, std::size_t indent, std::size_t columns)
{
    std::istringstream words(text);
    std::string result;
    std::size_t used = indent;
    for (std::string word; words >> word;) {
        if (!result.empty() && used + 1 + word.size() > columns) {
            result += "\n" + std::string(indent, ' ') + word;
            used = indent + word.size();
        } else {
            result += (result.empty() ? "" : " ") + word;
            used += word.size() + (result.size() == word.size() ? 0 : 1);
        }
    }
    return result;
}

std::string nodeList(std::string const& group)
{
    std::size_t width = 0;
    for (NodeInfo const& node : nodes()) width = std::max(width, node.name.size() + 4);
    std::string text;
    for (std::string const& name : nodeGroups()) {
        if (!group.empty() && name != group) continue;
        text += (text.empty() ? "" : "\n") + name + "\n";
        for (NodeInfo const& node : nodes())
            if (node.group == name) text += padded("  " + node.name, width) + wrapped(node.help, width, kColumns) + "\n";
    }
    return text;
}

std::string nodeHelp(NodeInfo const& node)
{
    std::size_t width = 0;
    for (InputInfo const& input : node.inputs) width = std::max(width, input.name.size());
    for (ParameterInfo const& parameter : node.parameters) width = std::max(width, parameter.name.size());
    width += 4;

    std::string text = node.name + ": " + node.help + "\n\n  " + useLine(node) + "\n";
    if (!node.inputs.empty()) text += "\nInputs: a result by its name, a file, or nothing for the last result\n";
    for (InputInfo const& input : node.inputs) text += padded("  " + input.name, width) + input.help + "\n";
    if (!node.parameters.empty()) text += "\nParameters\n";
    for (ParameterInfo const& parameter : node.parameters)
        text += padded("  " + parameter.name, width) + parameter.help + "\n" + padded("", width) + "(" + detailOf(parameter) + ")\n";
    return text;
}

std::string nodesToJson(std::vector<NodeInfo> const& nodes)
{
    Json list = Json::array();
    for (NodeInfo const& node : nodes) {
        Json inputs = Json::array(), parameters = Json::array();
        for (InputInfo const& input : node.inputs) inputs.push_back(inputToJson(input));
        for (ParameterInfo const& parameter : node.parameters) parameters.push_back(parameterToJson(parameter));
        list.push_back({{"name", node.name}, {"group", node.group}, {"help", node.help}, {"inputs", inputs}, {"parameters", parameters}, {"has_result", node.hasResult}});
    }
    return list.dump(2) + "\n";
}

std::string formatList()
{
    std::string text = padded("", 7) + padded("reads", 17) + padded("writes", 17) + "\n";
    for (io::FileFormat const& format : io::fileFormats()) {
        const auto kinds = [](bool volumes, bool meshes, bool points) {
            std::string words;
            for (char const* word : {volumes ? "volumes" : "", meshes ? "meshes" : "", points ? "points" : ""})
                if (*word) words += (words.empty() ? "" : ", ") + std::string(word);
            return padded(words.empty() ? "-" : words, 17);
        };
        text += padded(format.ending, 7) + kinds(format.readsVolumes, format.readsMeshes, format.readsPoints)
                + kinds(format.writesVolumes, format.writesMeshes, format.writesPoints) + format.help + "\n";
    }
    return text;
}

}  // namespace tilegrid::graph
