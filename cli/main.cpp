#include "TilegridOps/host/logger.h"
#include "cli/options.h"
#include "cli/progress.h"
#include "graph/chain.h"
#include "graph/error.h"
#include "graph/files.h"
#include "graph/help.h"
#include "graph/json.h"
#include "graph/plan.h"
#include "graph/registry.h"
#include "graph/run.h"
#include "graph/settings.h"
#include "graph/suggest.h"
#include "io/atomic_file.h"
#include "io/error.h"

#include <unistd.h>

#include <csignal>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace {

using namespace tilegrid;
using namespace tilegrid::cli;

constexpr int kDone = 0, kUsage = 1, kInput = 2, kNode = 3, kCancelled = 130;

// What the signal handler can reach.
Job job;

extern "C" void cancelJob(int signal)
{
    job.cancel();
    // A second one ends the program at once.
    std::signal(signal, SIG_DFL);
}

/// The library writes its diagnostics to standard output. While this lives they go to standard error, and results have a stream
/// of their own.
class OutputLoan {
public:
    OutputLoan() : results(std::cout.rdbuf()), lent_(std::cout.rdbuf(std::cerr.rdbuf())) {}
    OutputLoan(OutputLoan const&) = delete;
    OutputLoan& operator=(OutputLoan const&) = delete;
    ~OutputLoan() { std::cout.rdbuf(lent_); }
    std::ostream results;

private:
    std::streambuf* lent_;
};

std::string readText(std::string const& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (file) text << file.rdbuf();
    if (!file || std::filesystem::is_directory(path)) throw io::InputError(path + ": the file cannot be read. Is it there, and is it a file?");
    return text.str();
}

void printNodes(Options const& options, std::ostream& results)
{
    std::vector<std::string> names;
    bool json = false;
    for (std::size_t n = 1; n < options.words.size(); ++n) {
        if (options.words[n] == "--json")
            json = true;
        else
            names.push_back(options.words[n]);
    }
    std::vector<graph::NodeInfo> chosen;
    for (std::string const& name : names) {
        graph::NodeInfo const* node = graph::findNode(name);
        if (!node) throw graph::UsageError("nodes: there is no node '" + name + "'." + graph::suggestion(name, graph::nodeNames()));
        chosen.push_back(*node);
    }
    if (json)
        results << graph::nodesToJson(names.empty() ? graph::nodes() : chosen);
    else if (names.empty())
        results << graph::nodeList();
    for (graph::NodeInfo const& node : chosen)
        if (!json) results << graph::nodeHelp(node);
}

graph::Graph graphOfFile(std::string const& path)
{
    const std::string text = readText(path);
    try {
        return graph::graphFromJson(text);
    } catch (graph::UsageError const& error) {
        throw graph::UsageError(path + ": " + error.what());
    } catch (io::InputError const& error) {
        throw io::InputError(path + ": " + error.what());
    }
}

/// Help on the node that the words begin with, if they do.
void printHelp(Options const& options, std::ostream& results)
{
    graph::NodeInfo const* node = options.words.empty() ? nullptr : graph::findNode(options.words.front());
    if (node)
        results << graph::nodeHelp(*node);
    else
        results << usageText() << "\nnodes:\n" << graph::nodeList();
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

void runGraph(graph::Graph const& graph, Options const& options, std::ostream& results)
{
    const graph::Plan plan = graph::makePlan(graph);
    if (!options.save.empty()) {
        // Only a graph that could run is worth keeping.
        graph::createParentFolders(options.save);
        io::writeAtomically(options.save, [&](std::ostream& file) { file << graph::toJson(graph); });
        return;
    }
    ProgressReporter reporter(options.progress);
    const auto message = [&reporter](Severity severity, Corvid::StringView text) {
        reporter.clear();
        std::cerr << (severity == Severity::kError ? "error: " : severity == Severity::kWarning ? "warning: " : "")
                  << std::string_view(text) << std::endl;
    };
    graph::run(plan, {.job = &job, .threads = options.threads, .maxBytes = options.maxMemory, .results = results, .messages = message,
                      .progress = [&reporter](graph::Progress const& progress) { reporter.show(progress); }});
}

int runCommand(std::vector<std::string> const& arguments, std::ostream& results)
{
    const Options options = parseOptions(arguments, isatty(STDERR_FILENO) != 0);
    if (options.version) {
        results << "tilegrid " TILEGRID_VERSION "\n";
    } else if (options.help || options.words.empty() || options.words.front() == "help") {
        if (!options.help && options.words.empty()) throw graph::UsageError("nothing to do.\n\n" + usageText());
        printHelp(options, results);
    } else if (options.words.front() == "nodes") {
        printNodes(options, results);
    } else {
        CoreGL::Logger::setVerboseLevel(options.verbose);
        runGraph(graphOf(options), options, results);
    }
    results.flush();
    if (!results) throw io::InputError("standard output cannot be written.");
    return kDone;
}

int complain(int status, std::string const& text)
{
    std::cerr << "tilegrid: " << text << std::endl;
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    std::signal(SIGINT, cancelJob);
    std::signal(SIGTERM, cancelJob);
    std::signal(SIGPIPE, SIG_IGN);  // a closed pipe shows as a failed write
    OutputLoan output;
    try {
        return runCommand({argv + 1, argv + argc}, output.results);
    } catch (graph::Cancelled const&) {
        return complain(kCancelled, "cancelled; files written by steps that had ended stay.");
    } catch (graph::UsageError const& error) {
        return complain(kUsage, error.what());
    } catch (io::InputError const& error) {
        return complain(kInput, error.what());
    } catch (graph::NodeError const& error) {
        return complain(kNode, error.what());
    } catch (std::bad_alloc const&) {
        return complain(kInput, "there is not enough memory.");
    } catch (std::exception const& error) {
        return complain(kNode, error.what());
    }
}
