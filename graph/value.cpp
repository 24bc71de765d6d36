#include "graph/value.h"

#include "graph/error.h"
#include "graph/suggest.h"
#include "io/standard_stream.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>

namespace tilegrid::graph {

namespace {

/// The whole text as a number, in any locale; none if it is not one.
template <class T> std::optional<T> numberIn(std::string_view text)
{
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return {};
    return value;
}

double finiteNumber(std::string_view text)
{
    const auto value = numberIn<double>(text);
    if (!value || !std::isfinite(*value)) throw UsageError("'" + std::string(text) + "' is not a finite number.");
    return *value;
}

void checkRange(ParameterInfo const& parameter, double value, std::string const& text)
{
    if (!parameter.range.contains(value)) throw UsageError("'" + text + "' is out of range: " + rangeText(parameter.range) + ".");
}

/// Nodes take floats: what a float cannot hold is refused here, not turned into an infinity or a zero there.
void checkFloat(double value, std::string const& text)
{
    if (!std::isfinite(float(value))) throw UsageError("'" + text + "' is too large for a float.");
    if (value != 0 && float(value) == 0) throw UsageError("'" + text + "' is too small for a float.");
}

Value parseFloat(ParameterInfo const& parameter, std::string const& text)
{
    const double value = finiteNumber(text);
    checkFloat(value, text);
    checkRange(parameter, value, text);
    return value;
}

Value parseInt(ParameterInfo const& parameter, std::string const& text)
{
    const auto value = numberIn<std::int64_t>(text);
    if (!value) throw UsageError("'" + text + "' is not a whole number.");
    checkRange(parameter, double(*value), text);
    return *value;
}

Value parseBool(std::string const& text)
{
    if (text == "true" || text == "yes") return true;
    if (text == "false" || text == "no") return false;
    throw UsageError("'" + text + "' is neither true (or yes) nor false (or no).");
}

Value parseChoice(ParameterInfo const& parameter, std::string const& text)
{
    // Truth values keep their other words where a third choice stands beside them.
    const std::string word = text == "true" ? "yes" : text == "false" ? "no" : text;
    const auto found = std::find(parameter.choices.begin(), parameter.choices.end(), word);
    if (found == parameter.choices.end())
        throw UsageError("'" + text + "' is not one of " + listed(parameter.choices) + "." + suggestion(text, parameter.choices));
    return std::int64_t(found - parameter.choices.begin());
}

Value parseVector(std::string const& text)
{
    std::vector<double> numbers;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(',', begin), text.size());
        numbers.push_back(finiteNumber(std::string_view(text).substr(begin, end - begin)));
        begin = end + 1;
    }
    return numbers;
}

Value parseLength(ParameterInfo const& parameter, std::string const& text)
{
    std::string_view digits = text;
    Length length{0, parameter.bareUnit};
    if (digits.ends_with("vx") || digits.ends_with("wu")) {
        length.unit = digits.ends_with("vx") ? LengthUnit::kVoxels : LengthUnit::kWorld;
        digits.remove_suffix(2);
    }
    const auto value = numberIn<double>(digits);
    if (!value || !std::isfinite(*value))
        throw UsageError("'" + text + "' is not a length: write a number, with wu for world units" +
                         (parameter.voxelsAllowed ? " or vx for voxels." : "."));
    if (length.unit == LengthUnit::kVoxels && !parameter.voxelsAllowed)
        throw UsageError("'" + text + "' counts voxels, but there is no volume yet whose voxels could be meant. Give world units.");
    checkFloat(*value, text);
    checkRange(parameter, *value, text);
    length.value = *value;
    return length;
}

Value parseFile(ParameterInfo const& parameter, std::string const& text)
{
    if (text.empty()) throw UsageError("the file name is empty.");
    if (text == "-" && !parameter.streamed.empty()) {
        std::vector<std::string> formats;
        for (std::string const& ending : parameter.streamed) formats.push_back(ending.substr(1));
        throw UsageError("'-' is standard input or output: write format= and one of " + listed(formats) + ".");
    }
    if (io::isStandardStream(text) && !contains(parameter.streamed, endingOf(text)))
        throw UsageError(parameter.streamed.empty() ? "standard input and output mean nothing here: name a file."
                                                    : "only " + listed(parameter.streamed) + " go through standard input and output.");
    if (!parameter.endings.empty() && !contains(parameter.endings, endingOf(text)))
        throw UsageError("the format of '" + text + "' is not known: the name must end in " + listed(parameter.endings) + ".");
    return text;
}

template <class T> std::string shortestText(T value)
{
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

}  // namespace

Value parseValue(ParameterInfo const& parameter, std::string const& text)
{
    switch (parameter.type) {
        case ParameterType::kFloat: return parseFloat(parameter, text);
        case ParameterType::kInt: return parseInt(parameter, text);
        case ParameterType::kBool: return parseBool(text);
        case ParameterType::kEnum: return parseChoice(parameter, text);
        case ParameterType::kVector: return parseVector(text);
        case ParameterType::kLength: return parseLength(parameter, text);
        case ParameterType::kInputFile:
        case ParameterType::kOutputFile: return parseFile(parameter, text);
        case ParameterType::kString: break;
    }
    return text;
}

char const* typeName(ParameterType type)
{
    switch (type) {
        case ParameterType::kFloat: return "float";
        case ParameterType::kInt: return "int";
        case ParameterType::kBool: return "bool";
        case ParameterType::kEnum: return "enum";
        case ParameterType::kVector: return "vector";
        case ParameterType::kLength: return "length";
        case ParameterType::kInputFile: return "input file";
        case ParameterType::kOutputFile: return "output file";
        case ParameterType::kString: break;
    }
    return "string";
}

std::string rangeText(Range const& range)
{
    const bool below = std::isfinite(range.max), above = std::isfinite(range.min);
    if (above && below) return (range.aboveMin ? "above " : "") + shortest(range.min) + " to " + shortest(range.max);
    if (above) return range.aboveMin ? "above " + shortest(range.min) : "at least " + shortest(range.min);
    if (below) return "at most " + shortest(range.max);
    return {};
}

std::string shortest(double value)
{
    return shortestText(value);
}

std::string shortest(float value)
{
    return shortestText(value);
}

double asWritten(float value)
{
    return numberIn<double>(shortest(value)).value_or(value);
}

std::string endingOf(std::string_view file)
{
    const std::size_t dot = file.find_last_of("./");
    if (dot == std::string_view::npos || file[dot] != '.') return {};
    std::string ending(file.substr(dot));
    std::transform(ending.begin(), ending.end(), ending.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return ending;
}

bool contains(std::vector<std::string> const& names, std::string_view name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace tilegrid::graph
