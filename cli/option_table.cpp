#include "cli/option_table.h"

#include "cli/failure.h"

namespace tilegrid::cli {

std::vector<OptionInfo> const& optionTable()
{
    static const std::vector<OptionInfo> table = {
        {.name = "--save", .value = "FILE", .help = "write the chain as JSON and run nothing; -: to standard output", .valueIsFile = true},
        {.name = "--set", .value = "NAME=VALUE", .help = "with run: give every step that has it this parameter; STEP.NAME=VALUE for one step"},
        {.name = "--frames", .value = "RANGE",
         .help = "run the chain for each frame of 1-240, 1-240x2 or 7, with its number in place of #### in names of files; print a line of JSON a frame"},
        {.name = "--skip-existing", .help = "with --frames: leave out frames whose files are all there"},
        {.name = "--threads", .value = "N", .help = "work on N threads (default: all cores)"},
        {.name = "--max-memory", .value = "SIZE", .help = "refuse results that need more, such as 4G (default: three quarters of the machine)"},
        {.name = "--progress", .value = "FORM", .help = "bar, json or none (default: bar on a terminal), on standard error", .choices = {"bar", "json", "none"}},
        {.name = "--timings", .value = "FORM", .valueOptional = true,
         .help = "print seconds and bytes of each step on standard error, as a table or json", .choices = {"table", "json"}},
        {.name = "--quiet", .shortName = "-q", .help = "print results and errors only: no progress, no warnings, no remarks"},
        {.name = "-v", .shortName = "-vv, -vvv", .help = "print more and more diagnostics, on standard error"},
        {.name = "--", .help = "end of the options: a word after it that begins with - is a file or an input"},
        {.name = "--man", .help = "with help: print the manual page, in roff"},
        {.name = "--completion", .value = "SHELL", .help = "with help: print a script that completes words in bash", .choices = {"bash"}},
        {.name = "--help", .shortName = "-h", .help = "help on the command, or on the step that it stands in"},
        {.name = "--version", .help = "the version"},
    };
    return table;
}

std::string optionUse(OptionInfo const& option)
{
    std::string use = option.name;
    if (!option.value.empty()) use += option.valueOptional ? "[=" + option.value + "]" : option.choices.empty() ? " " + option.value : "=" + option.value;
    return use + (option.shortName.empty() ? "" : ", " + option.shortName);
}

std::vector<ExitStatus> const& exitStatuses()
{
    static const std::vector<ExitStatus> statuses = {{kDone, "done"},
                                                     {kUsage, "usage"},
                                                     {kInput, "input or file"},
                                                     {kNode, "a node reported an error"},
                                                     {kCancelled, "cancelled"},
                                                     {kClosedPipe, "nobody reads standard output any more"}};
    return statuses;
}

std::vector<UseForm> const& useForms()
{
    static const std::vector<UseForm> forms = {
        {"STEP [! STEP]...", "run a chain of steps"},
        {"run GRAPH.json [--set NAME=VALUE]...", "run a chain that --save wrote; -: from standard input"},
        {"nodes [NAME...] [--json]", "what steps there are, or some of them in full"},
        {"help [NAME]", "help on a step or a group of steps (also: tilegrid NAME --help)"},
    };
    return forms;
}

std::vector<std::string> const& stepSyntax()
{
    static const std::vector<std::string> paragraphs = {
        "A step is NODE [INPUT...] [FILE] [key=value...] [as=NAME]. `!` ends a step (`then` does the same, for shells that take `!` for "
        "themselves), as=NAME names its result, _ is the last result, and an input that is left out is the last result too. An input may "
        "also be a file: it is read first, with the parameters of read that stand in the step. Lengths are world units; 3vx means three "
        "finest voxels.",
        "The file - is standard input or output: `read - format=obj`, `write - format=ply`. Results go to standard error then.",
        "With --frames the chain runs once a frame. In names of files, ## and longer runs of # stand for its number, with zeros in front up to "
        "their length. Each frame prints one line of JSON: frame, state (done, skipped, failed or cancelled), status, seconds, outputs, "
        "results and messages. A frame that fails does not stop those after it; the exit status is that of the first that failed.",
    };
    return paragraphs;
}

std::vector<std::string> const& exampleLines()
{
    static const std::vector<std::string> lines = {
        "tilegrid read bunny.obj voxel=0.0387 as=bunny ! info bunny ! slice bunny bunny.png ! write bunny bunny.vdb",
        "tilegrid info bunny.vdb --json",
        "tilegrid read bunny.obj voxel=0.0387 ! write bunny.vdb --save graph.json",
        "tilegrid run graph.json --set voxel=0.02",
        "tilegrid read sim.####.vdb ! rebuild_level_set ! write out/sim.####.obj --frames 1-240x2 --skip-existing",
    };
    return lines;
}

}  // namespace tilegrid::cli
