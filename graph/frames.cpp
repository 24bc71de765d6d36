#include "graph/frames.h"

#include "graph/error.h"
#include "graph/registry.h"

#include <charconv>
#include <optional>

namespace tilegrid::graph {

namespace {

constexpr std::int64_t kLastFrame = 999'999'999, kMostFrames = 1'000'000;

/// Takes a whole number off the front of the text; none if it begins with anything but a digit, or is too large to count with.
std::optional<std::int64_t> takeNumber(std::string_view& text)
{
    if (text.empty() || text.front() < '0' || text.front() > '9') return {};
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) return {};
    text.remove_prefix(std::size_t(end - text.data()));
    return number;
}

[[noreturn]] void refuse(std::string const& text, std::string const& why)
{
    throw UsageError("--frames " + text + ": " + why);
}

bool isPlaceholder(std::string const& text, std::size_t begin, std::size_t& end)
{
    end = std::min(text.find_first_not_of('#', begin), text.size());
    return end - begin >= 2;
}

bool holdsFrame(std::string const& text)
{
    return text.find("##") != std::string::npos;
}

/// Calls `visit(step, parameter, text)` for every file that a step names; `text` may be changed.
template <class AnyGraph, class Visit> void forEachFile(AnyGraph& graph, Visit const& visit)
{
    for (auto& step : graph.steps) {
        NodeInfo const* node = findNode(step.node);
        if (!node) continue;
        for (auto& [name, text] : step.parameters) {
            ParameterInfo const* parameter = node->parameter(name);
            if (parameter && (parameter->type == ParameterType::kInputFile || parameter->type == ParameterType::kOutputFile)) visit(step, *parameter, text);
        }
    }
}

}  // namespace

FrameRange parseFrames(std::string const& text)
{
    std::string_view rest = text;
    const auto number = [&] {
        const auto value = takeNumber(rest);
        if (!value) refuse(text, "write 1-240, 1-240x2 for every second frame, or 7 for one. Frames are whole numbers from 0 on.");
        return *value;
    };
    FrameRange range;
    range.first = range.last = number();
    if (rest.starts_with('-')) {
        rest.remove_prefix(1);
        range.last = number();
    }
    if (rest.starts_with('x')) {
        rest.remove_prefix(1);
        range.step = number();
    }
    if (!rest.empty()) refuse(text, "'" + std::string(rest) + "' is too much. Write 1-240, 1-240x2 for every second frame, or 7 for one.");
    if (range.step < 1) refuse(text, "the step is 0. Give at least 1.");
    if (range.last < range.first) refuse(text, "the last frame is before the first one.");
    if (range.last > kLastFrame) refuse(text, "frames go up to " + std::to_string(kLastFrame) + ".");
    if (range.count() > kMostFrames)
        refuse(text, "these are " + std::to_string(range.count()) + " frames, and one run takes at most " + std::to_string(kMostFrames) + ".");
    return range;
}

std::string withFrame(std::string const& text, std::int64_t frame)
{
    const std::string digits = std::to_string(frame);
    std::string result;
    for (std::size_t begin = 0, end = 0; begin < text.size(); begin = end) {
        if (text[begin] != '#') {
            end = std::min(text.find('#', begin), text.size());
            result += text.substr(begin, end - begin);
        } else if (isPlaceholder(text, begin, end)) {
            const std::size_t width = end - begin;
            result += std::string(width > digits.size() ? width - digits.size() : 0, '0') + digits;
        } else {
            result += '#';
        }
    }
    return result;
}

Graph graphOfFrame(Graph const& graph, std::int64_t frame)
{
    Graph result = graph;
    forEachFile(result, [frame](Step const&, ParameterInfo const&, std::string& text) { text = withFrame(text, frame); });
    return result;
}

void checkFrameNames(Graph const& graph)
{
    std::string problems;
    bool any = false;
    forEachFile(graph, [&](Step const& step, ParameterInfo const& parameter, std::string const& text) {
        any |= holdsFrame(text);
        if (parameter.type != ParameterType::kOutputFile || holdsFrame(text)) return;
        problems += (problems.empty() ? "" : "\n") + stepLabel(std::size_t(&step - graph.steps.data()), step.node) + ": every frame would write '" + text +
                    "' anew. Put #### into the name, where the number of the frame is to stand.";
    });
    if (problems.empty() && !any) problems = "--frames: no file has #### in its name, which stands for the number of the frame.";
    if (!problems.empty()) throw UsageError(problems);
}

void refuseFrameNames(Graph const& graph)
{
    forEachFile(graph, [&](Step const& step, ParameterInfo const&, std::string const& text) {
        if (holdsFrame(text))
            throw UsageError(stepLabel(std::size_t(&step - graph.steps.data()), step.node) + ": in '" + text +
                             "' ## stands for the number of a frame. Say which, as in --frames 1-240.");
    });
}

std::vector<std::pair<std::size_t, std::string>> outputFiles(Plan const& plan)
{
    std::vector<std::pair<std::size_t, std::string>> files;
    for (std::size_t n = 0; n < plan.steps.size(); ++n)
        for (ParameterInfo const& parameter : plan.steps[n].node->parameters)
            if (parameter.type == ParameterType::kOutputFile && !plan.steps[n].arguments.text(parameter.name).empty())
                files.emplace_back(n, plan.steps[n].arguments.text(parameter.name));
    return files;
}

}  // namespace tilegrid::graph
