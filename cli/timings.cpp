#include "cli/timings.h"

#include "graph/help.h"
#include "io/text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>

namespace tilegrid::cli {

Timings::~Timings()
{
    if (form_ == TimingsForm::kTable) std::cerr << table() << std::flush;
    if (form_ == TimingsForm::kJson) std::cerr << json() << std::flush;
}

std::function<void(graph::StepReport const&)> Timings::sinkFor(graph::Plan const& plan)
{
    if (form_ == TimingsForm::kNone) return {};
    return [this, &plan](graph::StepReport const& report) {
        steps_.resize(std::max(steps_.size(), report.step + 1));
        Step& step = steps_[report.step];
        step.node = plan.steps[report.step].node->name;
        ++step.runs;
        step.seconds += report.seconds;
        step.resultBytes = std::max(step.resultBytes, report.resultBytes);
        step.peakBytes = std::max(step.peakBytes, report.peakBytes);
    };
}

std::string Timings::table() const
{
    std::size_t width = 6;
    for (Step const& step : steps_) width = std::max(width, step.node.size());
    const auto row = [width](std::string const& number, std::string const& node, std::string const& seconds, std::string const& result, std::string const& peak) {
        std::array<char, 128> text{};
        std::snprintf(text.data(), text.size(), "  %10s  %12s  %12s\n", seconds.c_str(), result.c_str(), peak.c_str());
        return std::string(number.size() < 4 ? 4 - number.size() : 0, ' ') + number + "  " + graph::padded(node, width) + text.data();
    };
    const auto seconds = [](double value) {
        std::array<char, 32> text{};
        std::snprintf(text.data(), text.size(), "%.3f", value);
        return std::string(text.data());
    };
    const auto bytes = [](std::uint64_t count) { return count > 0 ? io::byteText(double(count)) : std::string("-"); };
    std::string text = row("step", "node", "seconds", "result", "peak memory");
    double sum = 0;
    std::uint64_t peak = 0;
    for (std::size_t n = 0; n < steps_.size(); ++n) {
        text += row(std::to_string(n + 1), steps_[n].node, seconds(steps_[n].seconds), bytes(steps_[n].resultBytes), bytes(steps_[n].peakBytes));
        sum += steps_[n].seconds;
        peak = std::max(peak, steps_[n].peakBytes);
    }
    return text + row("", "all", seconds(sum), "", bytes(peak));
}

std::string Timings::json() const
{
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    double sum = 0;
    std::uint64_t peak = 0;
    for (std::size_t n = 0; n < steps_.size(); ++n) {
        Step const& step = steps_[n];
        list.push_back({{"step", n + 1}, {"node", step.node}, {"runs", step.runs}, {"seconds", step.seconds},
                        {"result_bytes", step.resultBytes}, {"peak_bytes", step.peakBytes}});
        sum += step.seconds;
        peak = std::max(peak, step.peakBytes);
    }
    return nlohmann::ordered_json{{"timings", std::move(list)}, {"seconds", sum}, {"peak_bytes", peak}}.dump() + "\n";
}

}  // namespace tilegrid::cli
