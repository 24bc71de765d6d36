#include "cli/failure.h"
#include "cli/help_command.h"
#include "cli/options.h"
#include "cli/output_loan.h"
#include "cli/run_command.h"
#include "graph/error.h"
#include "io/error.h"

#include <unistd.h>

#include <csignal>
#include <iostream>

namespace {

using namespace tilegrid;
using namespace tilegrid::cli;

// What the signal handler can reach.
Job job;

extern "C" void cancelJob(int signal)
{
    job.cancel();
    // A second one ends the program at once.
    std::signal(signal, SIG_DFL);
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
        runSteps(options, job, results);
    }
    results.flush();
    if (!results) throw io::InputError("standard output cannot be written.");
    return kDone;
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
    } catch (...) {
        const Failure failure = currentFailure();
        std::cerr << "tilegrid: " << failure.text << std::endl;
        return failure.status;
    }
}
