#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace tilegrid::cli {

enum class ProgressForm { kNone, kBar, kJson };
enum class TimingsForm { kNone, kTable, kJson };

/// The words of a command line, sorted: options of the command itself, and the rest.
struct Options {
    bool help = false, version = false;
    /// The word before which help was asked for: its place among the words.
    std::size_t helpAt = 0;
    /// With `help`: "man" or the shell whose completion is wanted; empty: help for people.
    std::string description;
    /// Results and errors only.
    bool quiet = false;
    int verbose = 0;
    /// 0: as many as the machine has.
    int threads = 0;
    std::uint64_t maxMemory = 0;
    ProgressForm progress = ProgressForm::kNone;
    TimingsForm timings = TimingsForm::kNone;
    /// Frames to run, as `graph::parseFrames` takes them; empty: no sequence.
    std::string frames;
    /// Leave out frames whose files are all there.
    bool skipExisting = false;
    /// File for the chain as JSON; empty: run it.
    std::string save;
    /// For `run`: assignments in their order.
    std::vector<std::string> settings;
    /// With the `--` that ends the options, if it was given.
    std::vector<std::string> words;
};

/// Options may stand anywhere before `--`; flags that belong to steps (`info b --json`) stay among the words.
/// \param barWanted  whether a progress bar is the default (standard error is a terminal)
/// \throws graph::UsageError for an option without its value, or with one that makes no sense
Options parseOptions(std::vector<std::string> const& arguments, bool barWanted);

/// "4G", "512M", "1.5g", "1000000": bytes. \throws graph::UsageError
std::uint64_t parseBytes(std::string const& text);

std::string usageText();

}  // namespace tilegrid::cli
