#include "command.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
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

CommandResult WorkFolder::run(std::vector<std::string> const& words, int interruptAfterMs) const
{
    // Streams go to files outside the folder, so that its listing shows what the command itself wrote.
    const std::string streams = folder_.string() + ".streams";
    std::vector<std::string> arguments = {TILEGRID_COMMAND};
    arguments.insert(arguments.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (std::string& word : arguments) argv.push_back(word.data());
    argv.push_back(nullptr);

    const pid_t child = fork();
    if (child == 0) {
        const int out = open((streams + ".out").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        const int err = open((streams + ".err").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0 || chdir(folder_.c_str()) != 0) _exit(99);
        execv(argv[0], argv.data());
        _exit(99);
    }
    if (interruptAfterMs > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(interruptAfterMs));
        kill(child, SIGINT);
    }
    int status = 0;
    waitpid(child, &status, 0);
    CommandResult result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    result.out = fileText(streams + ".out");
    result.err = fileText(streams + ".err");
    std::filesystem::remove(streams + ".out");
    std::filesystem::remove(streams + ".err");
    return result;
}
