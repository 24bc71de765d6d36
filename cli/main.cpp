#include "cli/allocation_meter.h"
#include "cli/failure.h"
#include "cli/help_command.h"
#include "cli/options.h"
#include "cli/run_command.h"
#include "cli/signal_watch.h"
#include "cli/streams.h"
#include "graph/error.h"
#include "io/error.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <iostream>
#include <system_error>

namespace {

using namespace tilegrid;
using namespace tilegrid::cli;

/// \return the exit status
int runCommand(std::vector<std::string> const& arguments, Job& job, std::ostream& results)
{
    const Options options = parseOptions(arguments, isatty(STDERR_FILENO) != 0);
    if (!options.description.empty() && options.words != std::vector<std::string>{"help"})
        throw graph::UsageError("--man and --completion go with help alone, as in `tilegrid help --man`.");
    if (options.version) {
        results << "tilegrid " TILEGRID_VERSION "\n";
    } else if (options.help || options.words.empty() || options.words.front() == "help") {
        if (!options.help && options.words.empty()) throw graph::UsageError("nothing to do.\n\n" + usageText());
        printHelp(options, results);
    } else if (options.words.front() == "nodes") {
        printNodes(options, results);
    } else {
        return runSteps(options, job, results);
    }
    return kDone;
}

/// The end of a command that ran through: its results may not have reached anybody.
int endOf(Streams& streams)
{
    const int error = streams.lostResults();
    if (error == 0) return kDone;
    if (error != EPIPE) throw io::InputError("standard output cannot be written: " + std::system_category().message(error) + ".");
    // Whoever read it has enough. That is how programs end then, without a word.
    std::signal(SIGPIPE, SIG_DFL);
    std::raise(SIGPIPE);
    return kClosedPipe;
}

}  // namespace

int main(int argc, char** argv)
{
    offerAllocationMeter();
    // A closed pipe and a file beyond the limit of the shell show as failed writes.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    Job job;
    Streams streams;
    try {
        const SignalWatch watch(job);
        const int status = runCommand({argv + 1, argv + argc}, job, streams.results);
        return status == kDone ? endOf(streams) : status;
    } catch (...) {
        const Failure failure = currentFailure();
        std::cerr << "tilegrid: " << failure.text << std::endl;
        return failure.status;
    }
}
