#include "io/atomic_file.h"
#include "io/error.h"
#include "support/files.h"

#include <ostream>
#include <stdexcept>

namespace tilegrid::test {
namespace {

using io::AtomicFile;
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

TEST(AtomicFile, gives_two_writers_of_one_file_different_places)
{
    const TestFolder folder;
    AtomicFile first(folder.file("a")), second(folder.file("a"));
    EXPECT_NE(first.workingPath(), second.workingPath());
}

TEST(AtomicFile, does_not_replace_a_device)
{
    writeAtomically("/dev/null", [](std::ostream& out) { out << "x"; });
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

}  // namespace
}  // namespace tilegrid::test
