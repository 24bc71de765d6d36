#pragma once
#include "support/paths.h"

#include <sys/types.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

/// The command as a person runs it: a process of its own in a folder of its own.
struct CommandResult {
    int status = -1;
    std::string out, err;
    /// The most memory that it had at once.
    std::size_t peakBytes = 0;
};

/// An empty folder that goes with the test.
class WorkFolder {
public:
    WorkFolder();
    ~WorkFolder();
    WorkFolder(WorkFolder const&) = delete;
    WorkFolder& operator=(WorkFolder const&) = delete;
    std::string path(std::string const& name) const { return (folder_ / name).string(); }
    /// Names of all files in it, sorted.
    std::vector<std::string> files() const;
    /// Runs `tilegrid` with these words in the folder.
    CommandResult run(std::vector<std::string> const& words) const;
    /// The same, and sends a signal as soon as its standard error holds `text`.
    CommandResult signalAt(std::string const& text, int signal, std::vector<std::string> const& words) const;

    /// The same, with a reader of its standard output that takes so many bytes and goes away; 0: before the command starts.
    CommandResult runReading(std::size_t bytes, std::vector<std::string> const& words) const;
    /// The same, with this descriptor as its standard output, which is closed here afterwards.
    CommandResult runTo(int output, std::vector<std::string> const& words) const;
    /// The same, with this text as its standard input.
    CommandResult runFrom(std::string const& input, std::vector<std::string> const& words) const;
    /// The same, where no file can grow beyond so many bytes.
    CommandResult runLimited(std::size_t fileBytes, std::vector<std::string> const& words) const;
    /// The same, and sends the signals as soon as `wait` has returned.
    CommandResult signalAfter(std::function<void()> const& wait, std::vector<int> const& signals, std::vector<std::string> const& words) const;

private:
    /// What a command runs with.
    struct Setting {
        /// Descriptors of its standard input and output; none: that of the test, and a file.
        int input = -1, output = -1;
        /// For a file; 0: no limit.
        std::size_t fileBytes = 0;
    };
    pid_t start(std::vector<std::string> const& words, Setting const& setting) const;
    CommandResult finish(pid_t child) const;
    CommandResult ended(int status, std::size_t peakBytes) const;
    /// Streams go to files outside the folder, so that its listing shows what the command itself wrote.
    std::string stream(std::string const& ending) const { return folder_.string() + ".streams" + ending; }

    std::filesystem::path folder_;
};

inline std::string fileText(std::string const& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline std::string bunny()
{
    return tilegrid::test::exampleFile("bunny.obj");
}
