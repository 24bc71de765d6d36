#include "cli/run_command.h"

#include "TilegridOps/host/logger.h"
#include "cli/failure.h"
#include "cli/frames_command.h"
#include "cli/progress.h"
#include "cli/timings.h"
#include "graph/chain.h"
#include "graph/error.h"
#include "graph/files.h"
#include "graph/frames.h"
#include "graph/json.h"
#include "graph/plan.h"
#include "graph/run.h"
#include "graph/settings.h"
#include "io/atomic_file.h"
#include "io/error.h"
#include "io/file_content.h"

#include <filesystem>
#include <iostream>

namespace tilegrid::cli {

namespace {

graph::Graph graphOfFile(std::string const& path)
{
    const std::string text = io::textContent(path, graph::kMaxGraphBytes);
    const std::string name = path == graph::kStandardStream ? "standard input" : path;
    try {
        return graph::graphFromJson(text);
    } catch (graph::UsageError const& error) {
        throw graph::UsageError(name + ": " + error.what());
    } catch (io::InputError const& error) {
        throw io::InputError(name + ": " + error.what());
    }
}

graph::Graph graphOf(Options const& options)
{
    if (options.words.front() != "run") {
        if (!options.settings.empty()) throw graph::UsageError("--set goes with `tilegrid run GRAPH.json`; in a chain write key=value.");
        return graph::parseChain(options.words, [](std::string const& path) { return std::filesystem::exists(path); });
    }
    if (options.words.size() != 2) throw graph::UsageError("run: give one file, as in `tilegrid run graph.json --set voxel=0.02`.");
    graph::Graph graph = graphOfFile(options.words[1]);
    for (std::string const& setting : options.settings) graph::applySetting(graph, setting);
    return graph;
}

/// Only a graph that could run is worth keeping.
void saveGraph(graph::Graph const& graph, std::string const& file, std::ostream& results)
{
    graph::makePlan(graph);
    if (file == graph::kStandardStream) {
        results << graph::toJson(graph);
        return;
    }
    graph::createParentFolders(file);
    io::writeAtomically(file, [&](std::ostream& out) { out << graph::toJson(graph); });
}

}  // namespace

int runSteps(Options const& options, Job& job, std::ostream& results)
{
    CoreGL::Logger::setVerboseLevel(options.verbose);
    const graph::Graph graph = graphOf(options);
    if (!options.save.empty()) {
        saveGraph(graph, options.save, results);
        return kDone;
    }
    Timings timings(options.timings);
    if (!options.frames.empty()) return runFrames(graph, options, job, results, timings);
    graph::refuseFrameNames(graph);
    const graph::Plan plan = graph::makePlan(graph);
    if (plan.readsInput && options.words == std::vector<std::string>{"run", graph::kStandardStream})
        throw graph::UsageError("the graph comes from standard input, and a step of it reads standard input: give one of them as a file.");
    ProgressReporter reporter(options.progress);
    const auto message = [&](Severity severity, Corvid::StringView text) { showMessage(reporter, options, severity, std::string_view(text)); };
    // A file that goes to standard output has it for itself.
    std::ostream& out = plan.writesOutput ? std::cerr : results;
    graph::run(plan, {.job = &job, .threads = options.threads, .maxBytes = options.maxMemory, .results = out, .messages = message,
                      .progress = [&](graph::Progress const& progress) { reporter.show(progress); },
                      .stepEnded = timings.sinkFor(plan)});
    return kDone;
}

}  // namespace tilegrid::cli
