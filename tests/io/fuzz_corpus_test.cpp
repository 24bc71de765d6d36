#include "io/error.h"
#include "io/mesh.h"
#include "io/vdb.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace tilegrid::test {
namespace {

namespace fs = std::filesystem;

/// Calls `read(name, bytes)` for every input kept for a fuzz target: its seeds, and what it once found.
template <class Read> int forCorpus(std::string const& target, Read const& read)
{
    int files = 0;
    for (auto const& entry : fs::directory_iterator(fs::path(TILEGRID_SOURCE_DIR) / "tests/fuzz/corpus" / target)) {
        std::ifstream in(entry.path(), std::ios::binary);
        read(entry.path().filename().string(), std::string(std::istreambuf_iterator<char>(in), {}));
        ++files;
    }
    return files;
}

Corvid::RuntimeServices silent()
{
    return Corvid::RuntimeServices(nullptr, [](Severity, Corvid::StringView) {});
}

TEST(FuzzCorpus, of_meshes_is_read_or_refused)
{
    const TestFolder folder;
    int accepted = 0;
    const int files = forCorpus("fuzz_mesh", [&](std::string const& name, std::string const& bytes) {
        SCOPED_TRACE(name);
        ASSERT_FALSE(bytes.empty());
        static char const* const endings[] = {".obj", ".ply", ".stl"};
        const std::string path = folder.file("mesh" + std::string(endings[static_cast<unsigned char>(bytes[0]) % 3]));
        std::ofstream(path, std::ios::binary) << bytes.substr(1);
        try {
            accepted += !io::readMesh(path, 1 << 28, silent()).triangles.empty();
        } catch (io::InputError const& error) {
            EXPECT_NE(std::string(error.what()), "");
        }
    });
    EXPECT_GE(accepted, 7) << "of " << files;
}

TEST(FuzzCorpus, of_volumes_is_read_or_refused)
{
    const TestFolder folder;
    int accepted = 0;
    const int files = forCorpus("fuzz_vdb", [&](std::string const& name, std::string const& bytes) {
        SCOPED_TRACE(name);
        const std::string path = folder.file("volume.vdb");
        std::ofstream(path, std::ios::binary) << bytes;
        try {
            io::VdbOptions options;
            options.maxBytes = 1 << 28;
            accepted += !io::readVdb(path, options, silent()).empty();
        } catch (io::InputError const& error) {
            EXPECT_NE(std::string(error.what()), "");
        }
    });
    EXPECT_GE(accepted, 2) << "of " << files;
}

}  // namespace
}  // namespace tilegrid::test
