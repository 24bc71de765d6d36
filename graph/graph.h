#pragma once
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tilegrid::graph {

/// The result of the last step before that has one, where an input is named.
inline constexpr char kLastResult[] = "_";

/// Standard input or output, where a file is named.
inline constexpr char kStandardStream[] = "-";

/// One step as it was written: nothing is checked yet, values are texts.
struct Step {
    std::string node;
    /// Names of results, one for each input of the node; none at all: the last result.
    std::vector<std::string> inputs;
    /// In the order written. A name that stands twice is a mistake that the check reports.
    std::vector<std::pair<std::string, std::string>> parameters;
    /// Name of the result; empty: none.
    std::string as;

    std::string const* parameter(std::string const& name) const
    {
        for (auto const& [key, value] : parameters)
            if (key == name) return &value;
        return nullptr;
    }
    /// The name of its file with an ending that tells the format, which standard input and output get from `format`.
    std::optional<std::string> file() const
    {
        std::string const *name = parameter("file"), *format = parameter("format");
        if (!name) return {};
        return *name == kStandardStream && format ? *name + "." + *format : *name;
    }
    /// Gives the parameter this text, in place of the one it had.
    void set(std::string const& name, std::string const& text)
    {
        for (auto& [key, value] : parameters)
            if (key == name) {
                value = text;
                return;
            }
        parameters.emplace_back(name, text);
    }
};

/// Steps in the order in which they run.
struct Graph {
    std::vector<Step> steps;
};

/// "step 2 (slice)": how messages name a step. `index` counts from 0.
inline std::string stepLabel(std::size_t index, std::string const& node)
{
    return "step " + std::to_string(index + 1) + " (" + node + ")";
}

}  // namespace tilegrid::graph
