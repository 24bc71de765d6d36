#include "io/error.h"
#include "io/mesh.h"
#include "io/points.h"
#include "io/points_table.h"
#include "io/vdb.h"
#include "support/files.h"
#include "support/paths.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

namespace tilegrid::test {
namespace {

namespace fs = std::filesystem;

/// Calls `read(name, bytes)` for every input kept for a fuzz target: its seeds, and what it once found.
template <class Read> int forCorpus(std::string const& target, Read const& read)
{
    int files = 0;
    for (auto const& entry : fs::directory_iterator(fs::path(sourceFolder()) / "tests/fuzz/corpus" / target)) {
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
    std::set<std::string> accepted;
    const int files = forCorpus("fuzz_mesh", [&](std::string const& name, std::string const& bytes) {
        SCOPED_TRACE(name);
        ASSERT_FALSE(bytes.empty());
        static char const* const endings[] = {".obj", ".ply", ".stl", ".off", ".glb", ".gltf"};
        const std::string path = folder.file("mesh" + std::string(endings[static_cast<unsigned char>(bytes[0]) % 6]));
        std::ofstream(path, std::ios::binary) << bytes.substr(1);
        try {
            if (!io::readMesh(path, 1 << 28, silent()).triangles.empty()) accepted.insert(name);
        } catch (io::InputError const& error) {
            EXPECT_NE(std::string(error.what()), "");
        }
    });
    EXPECT_EQ(files - int(accepted.size()), 4);
    for (char const* name : {"lines_instead_of_faces.ply", "loop_of_nodes.gltf", "count_beyond_the_bytes.glb", "wrong_count.off"}) EXPECT_FALSE(accepted.contains(name)) << name;
}

TEST(FuzzCorpus, of_points_is_read_or_refused)
{
    const TestFolder folder;
    std::set<std::string> accepted;
    const int files = forCorpus("fuzz_points", [&](std::string const& name, std::string const& bytes) {
        SCOPED_TRACE(name);
        ASSERT_FALSE(bytes.empty());
        const std::string path = folder.file(static_cast<unsigned char>(bytes[0]) % 2 ? "points.ply" : "points.csv");
        std::ofstream(path, std::ios::binary) << bytes.substr(1);
        EXPECT_TRUE(io::holdsPoints(path));
        try {
            // Throws without positions, and if a column is longer than others.
            io::tableOf(*io::readPoints(path, 1 << 28), silent());
            accepted.insert(name);
        } catch (io::InputError const& error) {
            EXPECT_NE(std::string(error.what()), "");
        }
    });
    for (char const* name : {"three_columns.csv", "four_columns.csv", "names.csv", "only_names.csv", "ascii.ply", "little.ply", "big.ply"})
        EXPECT_TRUE(accepted.contains(name)) << name << " of " << files;
    // Two columns for one attribute.
    for (char const* name : {"position_twice.csv", "x_twice.ply"}) EXPECT_FALSE(accepted.contains(name)) << name;
}

TEST(FuzzCorpus, of_volumes_is_read_or_refused)
{
    const TestFolder folder;
    std::set<std::string> accepted;
    const int files = forCorpus("fuzz_vdb", [&](std::string const& name, std::string const& bytes) {
        SCOPED_TRACE(name);
        const std::string path = folder.file("volume.vdb");
        std::ofstream(path, std::ios::binary) << bytes;
        try {
            io::VdbOptions options;
            options.maxBytes = 1 << 28;
            if (!io::readVdb(path, options, silent()).empty()) accepted.insert(name);
        } catch (io::InputError const& error) {
            EXPECT_NE(std::string(error.what()), "");
        }
    });
    for (char const* name : {"tetrahedron_binary.vdb", "tetrahedron_quinary.vdb", "levels_binary.vdb", "levels_quinary.vdb", "levels_binary_values.vdb"})
        EXPECT_TRUE(accepted.contains(name)) << name << " of " << files;
    // Tiles over others, without a parent, off the places of tiles, and a grid twice.
    for (char const* edit : {"overlapping", "orphan", "misaligned", "again"})
        EXPECT_FALSE(accepted.contains(std::string("levels_binary_") + edit + ".vdb")) << edit;
}

}  // namespace
}  // namespace tilegrid::test
