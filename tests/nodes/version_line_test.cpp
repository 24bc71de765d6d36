#include "support/text_match.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>

namespace tilegrid::test {
namespace {

/// What this very program writes to standard error (or where `errors` sends it) on the way to listing its tests.
std::string errorsAtLoad(std::string const& setting, std::string const& errors = "2>&1")
{
    std::array<char, 4096> path{};
    std::FILE* link = popen(("readlink -f /proc/" + std::to_string(getpid()) + "/exe").c_str(), "r");
    std::string program;
    while (link && std::fgets(path.data(), int(path.size()), link)) program += path.data();
    if (link) pclose(link);
    while (!program.empty() && program.back() == '\n') program.pop_back();
    const std::string command = "env -u TESSERA_DUMP_VERSION_INFO " + setting + " '" + program + "' --gtest_list_tests "
        + errors + " >/dev/null";
    std::FILE* pipe = popen(command.c_str(), "r");
    std::string text;
    while (pipe && std::fgets(path.data(), int(path.size()), pipe)) text += path.data();
    const int status = pipe ? pclose(pipe) : -1;
    EXPECT_EQ(status, 0);
    return text;
}

TEST(VersionLine, is_written_once_at_load_if_the_environment_asks_for_it)
{
    const std::string line = "     TilegridOps: Ostara version [0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+ \\(.*, build [^,]*, "
                             "commit .{7}, branch .*\\)\n";
    for (char const* value : {"1", "-3", " 7x"}) {
        const std::string text = errorsAtLoad("TESSERA_DUMP_VERSION_INFO='" + std::string(value) + "'");
        EXPECT_TRUE(matches(text, line)) << "'" << text << "'";
    }
}

TEST(VersionLine, is_not_written_otherwise)
{
    EXPECT_EQ(errorsAtLoad(""), "");
    for (char const* value : {"", "0", "yes", "00", "x1"})
        EXPECT_EQ(errorsAtLoad("TESSERA_DUMP_VERSION_INFO='" + std::string(value) + "'"), "") << value;
}

TEST(VersionLine, does_no_harm_when_standard_error_is_closed)
{
    EXPECT_EQ(errorsAtLoad("TESSERA_DUMP_VERSION_INFO=1", "2>&-"), "");
}

}  // namespace
}  // namespace tilegrid::test
