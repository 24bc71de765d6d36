#include "io/atomic_file.h"

#include "TilegridOps/host/job.h"
#include "io/error.h"
#include "support/files.h"

#include <ostream>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

namespace tilegrid::test {
namespace {

using io::InputError;
using io::writeAtomically;

TEST(AtomicFile, replaces_the_old_content_only_when_all_is_written)
{
    const TestFolder folder;
    folder.write("a", "old");
    writeAtomically(folder.file("a"), [&](std::ostream& out) {
        out << "new" << std::flush;
        EXPECT_EQ(folder.read("a"), "old");
    });
    EXPECT_EQ(folder.read("a"), "new");
    EXPECT_EQ(folder.fileCount(), 1u);
}

TEST(AtomicFile, leaves_the_old_content_and_nothing_else_after_a_failure)
{
    const TestFolder folder;
    folder.write("a", "old");
    EXPECT_THROW(writeAtomically(folder.file("a"),
                                 [](std::ostream& out) {
                                     out << "half";
                                     throw std::runtime_error("stop");
                                 }),
                 std::runtime_error);
    EXPECT_THROW(writeAtomically(folder.file("a"), [](std::ostream& out) { out.setstate(std::ios::badbit); }),
                 InputError);
    EXPECT_EQ(folder.read("a"), "old");
    EXPECT_EQ(folder.fileCount(), 1u);
}

TEST(AtomicFile, keeps_a_link_and_replaces_what_it_leads_to)
{
    const TestFolder folder;
    folder.write("target", "old");
    std::filesystem::create_symlink(folder.file("target"), folder.file("link"));
    writeAtomically(folder.file("link"), [](std::ostream& out) { out << "new"; });
    EXPECT_TRUE(std::filesystem::is_symlink(folder.file("link")));
    EXPECT_EQ(folder.read("target"), "new");
}

TEST(AtomicFile, of_two_writers_is_whole_and_from_the_last_that_ended)
{
    const TestFolder folder;
    writeAtomically(folder.file("a"), [&](std::ostream& outer) {
        outer << "outer ";
        writeAtomically(folder.file("a"), [](std::ostream& inner) { inner << "inner"; });
        EXPECT_EQ(folder.read("a"), "inner");
        outer << "ends";
    });
    EXPECT_EQ(folder.read("a"), "outer ends");
    EXPECT_EQ(folder.fileCount(), 1u);
}

TEST(AtomicFile, has_a_stream_that_seeks_and_reads_back)
{
    const TestFolder folder;
    // More than a buffer, so that the places lie in what was written and in what waits.
    const std::string line = "0123456789abcdef";
    const auto fill = [&](std::iostream& out) {
        for (int n = 0; n < 10000; ++n) out << line;
        EXPECT_EQ(out.tellp(), 160000);
        out.seekp(5);
        out << "ABC";
        EXPECT_EQ(out.tellp(), 8);
        out.seekg(4);
        std::string read(6, ' ');
        out.read(read.data(), 6);
        EXPECT_EQ(read, "4ABC89");
        EXPECT_EQ(out.tellg(), 10);
        out.seekp(0, std::ios::end);
        out << "end";
    };
    writeAtomically(folder.file("a"), fill);
    std::string expected;
    for (int n = 0; n < 10000; ++n) expected += line;
    expected.replace(5, 3, "ABC") += "end";
    EXPECT_TRUE(folder.read("a") == expected);
}

TEST(AtomicFile, keeps_the_permissions_of_the_old_file)
{
    namespace fs = std::filesystem;
    const TestFolder folder;
    folder.write("a", "old");
    const auto shared = fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read;
    fs::permissions(folder.file("a"), shared);
    writeAtomically(folder.file("a"), [](std::ostream& out) { out << "new"; });
    EXPECT_EQ(fs::status(folder.file("a")).permissions(), shared);
}

TEST(AtomicFile, that_a_cancelled_job_writes_is_not_there)
{
    const TestFolder folder;
    folder.write("a", "old");
    Job job;
    const Job::Scope scope(&job);
    EXPECT_THROW(writeAtomically(folder.file("a"),
                                 [&job](std::ostream& out) {
                                     out << "new";
                                     job.cancel();
                                 }),
                 std::runtime_error);
    EXPECT_EQ(folder.read("a"), "old");
    EXPECT_EQ(folder.fileCount(), 1u);
}

TEST(AtomicFile, that_a_program_abandons_leaves_nothing)
{
    const TestFolder folder;
    folder.write("a", "old");
    const auto write = [&](std::ostream& out) {
        out << "half" << std::flush;
        EXPECT_EQ(folder.fileCount(), 2u);
        // A copy of this process, which ends here without unwinding.
        const pid_t child = fork();
        if (child == 0) {
            io::abandonTemporaryFiles();
            _exit(0);
        }
        waitpid(child, nullptr, 0);
        EXPECT_EQ(folder.fileCount(), 1u);
    };
    // For the parent the file is gone.
    EXPECT_TRUE(
        contains(errorOf<InputError>([&] { writeAtomically(folder.file("a"), write); }), "No such file or directory"));
    EXPECT_EQ(folder.read("a"), "old");
}

TEST(AtomicFile, tells_the_reason_of_the_system)
{
    const TestFolder folder;
    const auto words = [](std::ostream& out) { out << "words"; };
    EXPECT_TRUE(contains(errorOf<InputError>([&] { writeAtomically("/dev/full", words); }), "No space left on device"));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { writeAtomically(folder.file("no/a"), words); }),
                         "No such file or directory"));
}

TEST(AtomicFile, does_not_replace_a_device)
{
    writeAtomically("/dev/null", [](std::ostream& out) { out << "x"; });
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

}  // namespace
}  // namespace tilegrid::test
