#include "cli/option_table.h"
#include "cli/self_description.h"
#include "graph/help.h"
#include "graph/registry.h"

namespace tilegrid::cli {

namespace {

/// Text as it is, for roff: no character of it is a command, and a hyphen is one that can be copied.
std::string roff(std::string const& text)
{
    std::string result;
    for (const char c : text) {
        if (c == '\\')
            result += "\\e";
        else if (c == '-')
            result += "\\-";
        else
            result += c;
    }
    return result.starts_with('.') || result.starts_with('\'') ? "\\&" + result : result;
}

/// The argument of a macro.
std::string quoted(std::string const& text)
{
    std::string result;
    for (const char c : roff(text)) result += c == '"' ? std::string("\\(dq") : std::string(1, c);
    return "\"" + result + "\"";
}

std::string entry(std::string const& term, std::string const& text)
{
    return ".TP\n.B " + quoted(term) + "\n" + roff(text) + "\n";
}

std::string nodeEntry(graph::NodeInfo const& node)
{
    std::string text = ".SS " + quoted(node.name) + "\n" + roff(node.help) + ".\n.PP\n.nf\n" + roff(graph::useLine(node)) + "\n.fi\n";
    for (graph::InputInfo const& input : node.inputs) text += entry(input.name, "input: " + input.help);
    for (graph::ParameterInfo const& parameter : node.parameters)
        text += entry(parameter.name, parameter.help + " (" + graph::detailOf(parameter) + ")");
    return text;
}

}  // namespace

std::string manPage()
{
    std::string text = ".TH TILEGRID 1 \"\" \"tilegrid " TILEGRID_VERSION "\" \"User Commands\"\n"
                       ".SH NAME\ntilegrid \\- operators on sparse, adaptive voxel grids\n.SH SYNOPSIS\n";
    for (UseForm const& form : useForms()) text += (text.ends_with("SYNOPSIS\n") ? ".B tilegrid\n" : ".br\n.B tilegrid\n") + roff(form.line) + "\n";
    text += ".SH DESCRIPTION\n";
    for (std::string const& paragraph : stepSyntax()) text += ".PP\n" + roff(paragraph) + "\n";
    text += ".SH OPTIONS\n";
    for (OptionInfo const& option : optionTable()) text += entry(optionUse(option), option.help);
    for (std::string const& group : graph::nodeGroups()) {
        text += ".SH " + quoted("NODES: " + group) + "\n";
        for (graph::NodeInfo const& node : graph::nodes())
            if (node.group == group) text += nodeEntry(node);
    }
    text += ".SH \"EXIT STATUS\"\n";
    for (ExitStatus const& exit : exitStatuses()) text += entry(std::to_string(exit.status), exit.meaning);
    text += ".SH EXAMPLES\n.nf\n";
    for (std::string const& line : exampleLines()) text += roff(line) + "\n";
    return text + ".fi\n";
}

}  // namespace tilegrid::cli
