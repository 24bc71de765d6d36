// The command on files that announce more than they hold.
#include "command.h"

#include <gtest/gtest.h>

namespace {

bool holds(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

TEST(DamagedFile, that_asks_for_much_memory_is_refused_at_the_limit)
{
    const WorkFolder folder;
    // 300 bytes that announce a text of 512 MiB, which a reader makes room for before it looks whether it comes.
    std::ofstream(folder.path("a.vdb"), std::ios::binary)
        << fileText(tilegrid::test::sourceFolder() + "/tests/fuzz/corpus/fuzz_vdb/long_text.vdb");
    const auto result = folder.run({"info", "a.vdb", "--max-memory", "100M"});
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(holds(result.err, "'a.vdb': it asks for more memory than the limit of 100 MiB")) << result.err;
    // The limit and what the program itself takes, with sanitizers too; without the limit it is more than 512 MiB.
    EXPECT_LT(result.peakBytes, std::size_t(400) << 20);
}

}  // namespace
