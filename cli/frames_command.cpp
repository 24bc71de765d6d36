#include "cli/frames_command.h"

#include "cli/failure.h"
#include "cli/progress.h"
#include "graph/error.h"
#include "graph/frames.h"
#include "graph/plan.h"
#include "graph/run.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <sstream>

namespace tilegrid::cli {

namespace {

using Json = nlohmann::ordered_json;
using Files = std::vector<std::pair<std::size_t, std::string>>;

char const* severityName(Severity severity)
{
    return severity == Severity::kError ? "error" : severity == Severity::kWarning ? "warning" : "info";
}

/// Each line of the text: JSON documents as such, others as text.
Json resultsOf(std::string const& text)
{
    Json list = Json::array();
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        Json document = line.starts_with('{') ? Json::parse(line, nullptr, /*allow_exceptions*/ false) : Json(line);
        list.push_back(document.is_discarded() ? Json(line) : std::move(document));
    }
    return list;
}

bool allThere(Files const& files)
{
    return std::ranges::all_of(files, [](auto const& file) {
        std::error_code ignored;
        return std::filesystem::is_regular_file(file.second, ignored);
    });
}

/// One run of the chain, and what is told of it.
struct FrameReport {
    std::int64_t frame = 0;
    char const* state = "done";
    int status = kDone;
    double seconds = 0;
    Json outputs = Json::array(), results = Json::array(), messages = Json::array();

    void add(Severity severity, std::string const& text) { messages.push_back({{"severity", severityName(severity)}, {"text", text}}); }
    std::string line() const
    {
        const Json document = {{"frame", frame}, {"state", state}, {"status", status}, {"seconds", seconds},
                               {"outputs", outputs}, {"results", results}, {"messages", messages}};
        return document.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    }
};

class Sequence {
public:
    Sequence(graph::Graph const& graph, Options const& options, Job& job, Timings& timings)
        : graph_(graph), options_(options), job_(job), timings_(timings), reporter_(options.progress)
    {
    }

    int run(graph::FrameRange const& range, std::ostream& results)
    {
        int first = kDone;
        std::string failed;
        std::int64_t failures = 0;
        for (std::int64_t n = 0; n < range.count(); ++n) {
            if (job_.cancelled()) throw graph::Cancelled();
            reporter_.beginFrame(range.frame(n), n + 1, range.count());
            const FrameReport report = runFrame(range.frame(n));
            reporter_.clear();
            results << report.line() << std::flush;
            if (report.status == kCancelled) throw graph::Cancelled();
            if (report.status == kDone) continue;
            if (first == kDone) first = report.status;
            constexpr int kNamed = 20;
            if (failures < kNamed) failed += (failures > 0 ? ", " : "") + std::to_string(report.frame);
            if (failures == kNamed) failed += ", ...";
            ++failures;
        }
        if (failures > 0)
            std::cerr << "tilegrid: " << failures << " of " << range.count() << " frames failed: " << failed << "." << std::endl;
        return first;
    }

private:
    FrameReport runFrame(std::int64_t frame)
    {
        FrameReport report{.frame = frame};
        Files files;
        std::size_t ended = 0;
        std::ostringstream printed;
        const auto start = std::chrono::steady_clock::now();
        try {
            const graph::Plan plan = graph::makePlan(graph::graphOfFrame(graph_, frame));
            files = graph::outputFiles(plan);
            ended = plan.steps.size();
            if (options_.skipExisting && allThere(files))
                report.state = "skipped";
            else
                runPlan(plan, report, printed, ended);
        } catch (...) {
            noteFailure(report);
        }
        report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        for (auto const& [step, file] : files)
            if (step < ended) report.outputs.push_back(file);
        report.results = resultsOf(printed.str());
        return report;
    }

    void runPlan(graph::Plan const& plan, FrameReport& report, std::ostream& printed, std::size_t& ended)
    {
        const auto message = [&](Severity severity, Corvid::StringView text) {
            report.add(severity, std::string(std::string_view(text)));
            showMessage(reporter_, options_, severity, std::string_view(text), prefix(report));
        };
        const auto timing = timings_.sinkFor(plan);
        ended = 0;
        graph::run(plan, {.job = &job_, .threads = options_.threads, .maxBytes = options_.maxMemory, .results = printed, .messages = message,
                          .progress = [&](graph::Progress const& progress) { reporter_.show(progress); },
                          .stepEnded = [&](graph::StepReport const& step) {
                              ended = step.step + 1;
                              if (timing) timing(step);
                          }});
    }

    /// Inside a handler.
    void noteFailure(FrameReport& report)
    {
        const Failure failure = currentFailure();
        report.status = failure.status;
        report.state = failure.status == kCancelled ? "cancelled" : "failed";
        report.add(Severity::kError, failure.text);
        reporter_.clear();
        if (failure.status != kCancelled) std::cerr << "tilegrid: " << prefix(report) << failure.text << std::endl;
    }

    static std::string prefix(FrameReport const& report) { return "frame " + std::to_string(report.frame) + ": "; }

    graph::Graph const& graph_;
    Options const& options_;
    Job& job_;
    Timings& timings_;
    ProgressReporter reporter_;
};

}  // namespace

int runFrames(graph::Graph const& graph, Options const& options, Job& job, std::ostream& results, Timings& timings)
{
    const graph::FrameRange range = graph::parseFrames(options.frames);
    graph::checkFrameNames(graph);
    // What is wrong with the graph is wrong in every frame.
    const graph::Plan plan = graph::makePlan(graph::graphOfFrame(graph, range.first));
    if (plan.readsInput || plan.writesOutput) throw graph::UsageError("--frames: name a file for each frame; standard input and output (-) are one.");
    if (options.skipExisting && graph::outputFiles(plan).empty()) throw graph::UsageError("--skip-existing: no step writes a file.");
    return Sequence(graph, options, job, timings).run(range, results);
}

}  // namespace tilegrid::cli
