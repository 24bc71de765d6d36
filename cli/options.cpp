#include "cli/options.h"

#include "TilegridOps/substrate/memory_budget.h"
#include "cli/option_table.h"
#include "graph/error.h"
#include "graph/help.h"
#include "graph/registry.h"
#include "graph/suggest.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>

namespace tilegrid::cli {

namespace {

int parseThreads(std::string const& text)
{
    constexpr int kMostThreads = 1024;
    int threads = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), threads);
    if (error != std::errc() || end != text.data() + text.size() || threads < 1 || threads > kMostThreads)
        throw graph::UsageError("--threads " + text + ": give a number from 1 to " + std::to_string(kMostThreads) + ".");
    return threads;
}

ProgressForm parseProgress(std::string const& text, bool barWanted)
{
    if (text == "none") return ProgressForm::kNone;
    if (text == "json") return ProgressForm::kJson;
    // A bar redraws its line, which only a terminal can show.
    if (text == "bar") return barWanted ? ProgressForm::kBar : ProgressForm::kNone;
    throw graph::UsageError("--progress=" + text + ": choose bar, json or none.");
}

TimingsForm parseTimings(std::string const& word)
{
    if (word == "--timings" || word == "--timings=table") return TimingsForm::kTable;
    if (word == "--timings=json") return TimingsForm::kJson;
    throw graph::UsageError(word + ": choose table or json.");
}

/// The value of `--name VALUE` or `--name=VALUE` at word `n`, which moves on to the word of the value. Nothing if word `n` is
/// another one.
std::optional<std::string> optionValue(std::vector<std::string> const& words, std::size_t& n, std::string const& name)
{
    std::string const& word = words[n];
    if (word.rfind(name + "=", 0) == 0) return word.substr(name.size() + 1);
    if (word != name) return {};
    if (n + 1 >= words.size()) throw graph::UsageError(name + ": a value must follow.");
    return words[++n];
}

/// True for `-x` and `--name`, but not for a negative number.
bool looksLikeOption(std::string const& word)
{
    return word.size() > 1 && word[0] == '-' && (word[1] == '-' || std::isalpha(static_cast<unsigned char>(word[1])));
}

/// True for `--NAME` and `--NAME=...` where a step has a parameter NAME; what it may be is for the check of the step.
bool belongsToAStep(std::string const& word)
{
    const std::string name = word.substr(2, word.find('=') - 2);
    const auto has = [&](graph::NodeInfo const& node) { return node.parameter(name) != nullptr; };
    return word.starts_with("--") && std::any_of(graph::nodes().begin(), graph::nodes().end(), has);
}

[[noreturn]] void refuseOption(std::string const& word)
{
    std::vector<std::string> known = {"--json"};
    for (OptionInfo const& option : optionTable()) known.push_back(option.name);
    throw graph::UsageError("there is no option '" + word + "'." + graph::suggestion(word.substr(0, word.find('=')), known) +
                            " `tilegrid --help` lists them; for a file of that name write -- before it, or ./" + word + ".");
}

}  // namespace

std::uint64_t parseBytes(std::string const& text)
{
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    std::string unit(end, text.data() + text.size());
    for (char& c : unit) c = char(std::toupper(static_cast<unsigned char>(c)));
    double factor = 0;
    if (unit.empty() || unit == "B") factor = 1;
    if (unit == "K" || unit == "KB" || unit == "KIB") factor = 1024.0;
    if (unit == "M" || unit == "MB" || unit == "MIB") factor = 1024.0 * 1024;
    if (unit == "G" || unit == "GB" || unit == "GIB") factor = 1024.0 * 1024 * 1024;
    if (error != std::errc() || factor == 0 || !(number * factor >= 1) || !(number * factor < 1e18))
        throw graph::UsageError("--max-memory " + text + ": give bytes, or a number with K, M or G, such as 4G.");
    return std::uint64_t(number * factor);
}

Options parseOptions(std::vector<std::string> const& arguments, bool barWanted)
{
    Options options;
    options.maxMemory = defaultMemoryLimit();
    std::optional<ProgressForm> progress;
    for (std::size_t n = 0; n < arguments.size(); ++n) {
        std::string const& word = arguments[n];
        if (word == "--") {
            options.words.insert(options.words.end(), arguments.begin() + std::ptrdiff_t(n), arguments.end());
            break;
        }
        if (word == "--help" || word == "-h") {
            options.help = true;
            options.helpAt = options.words.size();
        } else if (word == "--version")
            options.version = true;
        else if (word == "--quiet" || word == "-q")
            options.quiet = true;
        else if (word == "-v" || word == "-vv" || word == "-vvv")
            options.verbose += int(word.size()) - 1;
        else if (word == "--man")
            options.description = "man";
        else if (const auto shell = optionValue(arguments, n, "--completion"))
            options.description = *shell == "bash" ? *shell : throw graph::UsageError("--completion=" + *shell + ": there is one for bash.");
        else if (word == "--skip-existing")
            options.skipExisting = true;
        else if (word == "--timings" || word.starts_with("--timings="))
            options.timings = parseTimings(word);
        else if (const auto frames = optionValue(arguments, n, "--frames"))
            options.frames = frames->empty() ? throw graph::UsageError("--frames: a range must follow, such as 1-240.") : *frames;
        else if (const auto threads = optionValue(arguments, n, "--threads"))
            options.threads = parseThreads(*threads);
        else if (const auto bytes = optionValue(arguments, n, "--max-memory"))
            options.maxMemory = parseBytes(*bytes);
        else if (const auto form = optionValue(arguments, n, "--progress"))
            progress = parseProgress(*form, barWanted);
        else if (const auto file = optionValue(arguments, n, "--save"))
            options.save = *file;
        else if (const auto setting = optionValue(arguments, n, "--set"))
            options.settings.push_back(*setting);
        else if (looksLikeOption(word) && !belongsToAStep(word))
            refuseOption(word);
        else
            options.words.push_back(word);
    }
    if (options.quiet && options.verbose > 0) throw graph::UsageError("--quiet and -v contradict each other. Give one of them.");
    if (options.skipExisting && options.frames.empty()) throw graph::UsageError("--skip-existing goes with --frames.");
    if (!options.save.empty() && !options.frames.empty())
        throw graph::UsageError("--save keeps #### in the graph as it is. Give --frames where the graph is run: tilegrid run GRAPH.json --frames 1-240.");
    // Diagnostics go to the same terminal, and would tear the bar.
    options.progress = progress.value_or(barWanted && options.verbose == 0 && !options.quiet ? ProgressForm::kBar : ProgressForm::kNone);
    return options;
}

std::string usageText()
{
    constexpr std::size_t kColumns = 118;
    std::size_t width = 0;
    for (UseForm const& form : useForms()) width = std::max(width, std::string(form.line).size() + 2);
    std::string text;
    for (UseForm const& form : useForms())
        text += (text.empty() ? "usage: tilegrid " : "       tilegrid ") + graph::padded(form.line, width) + form.help + "\n";
    text += "\n";
    for (std::string const& paragraph : stepSyntax()) text += graph::wrapped(paragraph, 0, kColumns) + "\n\n";
    for (std::string const& line : exampleLines()) text += "  " + line + "\n";
    text += "\noptions:\n";
    constexpr std::size_t kOptionWidth = 24;
    for (OptionInfo const& option : optionTable())
        text += graph::padded("  " + optionUse(option), kOptionWidth) + graph::wrapped(option.help, kOptionWidth, kColumns) + "\n";
    text += "\nexit status:";
    for (ExitStatus const& exit : exitStatuses()) text += (exit.status > 0 ? ", " : " ") + std::to_string(exit.status) + " " + exit.meaning;
    return text + "\n";
}

}  // namespace tilegrid::cli
