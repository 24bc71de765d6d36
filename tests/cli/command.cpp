#include "command.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

WorkFolder::WorkFolder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "tilegrid test XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("no folder for the test");
    folder_ = pattern;
}

WorkFolder::~WorkFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

std::vector<std::string> WorkFolder::files() const
{
    std::vector<std::string> names;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(folder_))
        if (entry.is_regular_file()) names.push_back(std::filesystem::relative(entry.path(), folder_).string());
    std::sort(names.begin(), names.end());
    return names;
}

pid_t WorkFolder::start(std::vector<std::string> const& words, Setting const& setting) const
{
    std::vector<std::string> arguments = {TILEGRID_COMMAND};
    arguments.insert(arguments.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (std::string& word : arguments) argv.push_back(word.data());
    argv.push_back(nullptr);

    const pid_t child = fork();
    if (child == 0) {
        const rlimit limit{setting.fileBytes, setting.fileBytes};
        if (setting.fileBytes > 0 && setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(99);
        if (setting.input >= 0 && dup2(setting.input, 0) < 0) _exit(99);
        const int out = setting.output >= 0 ? setting.output : open(stream(".out").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        const int err = open(stream(".err").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0 || chdir(folder_.c_str()) != 0) _exit(99);
        execv(argv[0], argv.data());
        _exit(99);
    }
    return child;
}

CommandResult WorkFolder::finish(pid_t child) const
{
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    return ended(status, std::size_t(usage.ru_maxrss) << 10);
}

CommandResult WorkFolder::ended(int status, std::size_t peakBytes) const
{
    CommandResult result;
    result.peakBytes = peakBytes;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    result.out = fileText(stream(".out"));
    result.err = fileText(stream(".err"));
    std::filesystem::remove(stream(".out"));
    std::filesystem::remove(stream(".err"));
    return result;
}

CommandResult WorkFolder::run(std::vector<std::string> const& words) const
{
    return finish(start(words, {}));
}

CommandResult WorkFolder::runReading(std::size_t bytes, std::vector<std::string> const& words) const
{
    int ends[2];
    // Closed by exec, so that the command itself holds no end that reads.
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe for the test");
    if (bytes == 0) close(ends[0]);
    const pid_t child = start(words, {.output = ends[1]});
    close(ends[1]);
    std::string text(bytes, '\0');
    for (std::size_t held = 0; held < bytes;) {
        const ssize_t count = read(ends[0], text.data() + held, bytes - held);
        if (count <= 0) text.resize(bytes = held);
        held += std::size_t(std::max<ssize_t>(count, 0));
    }
    if (!text.empty()) close(ends[0]);
    CommandResult result = finish(child);
    result.out = text;
    return result;
}

CommandResult WorkFolder::runTo(int output, std::vector<std::string> const& words) const
{
    CommandResult result = finish(start(words, {.output = output}));
    close(output);
    return result;
}

CommandResult WorkFolder::runFrom(std::string const& input, std::vector<std::string> const& words) const
{
    std::ofstream(stream(".in"), std::ios::binary) << input;
    const int descriptor = open(stream(".in").c_str(), O_RDONLY | O_CLOEXEC);
    const CommandResult result = finish(start(words, {.input = descriptor}));
    close(descriptor);
    std::filesystem::remove(stream(".in"));
    return result;
}

CommandResult WorkFolder::runLimited(std::size_t fileBytes, std::vector<std::string> const& words) const
{
    return finish(start(words, {.fileBytes = fileBytes}));
}

CommandResult WorkFolder::signalAfter(std::function<void()> const& wait, std::vector<int> const& signals, std::vector<std::string> const& words) const
{
    const pid_t child = start(words, {});
    wait();
    for (const int signal : signals) kill(child, signal);
    return finish(child);
}

CommandResult WorkFolder::signalAt(std::string const& text, int signal, std::vector<std::string> const& words) const
{
    const pid_t child = start(words, {});
    int status = 0;
    while (fileText(stream(".err")).find(text) == std::string::npos) {
        if (waitpid(child, &status, WNOHANG) == child) return ended(status, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    kill(child, signal);
    return finish(child);
}
