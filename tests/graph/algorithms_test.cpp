// Points through files, and the nodes that work on them and on volumes.
#include "graph/chain.h"
#include "graph/error.h"
#include "graph/plan.h"
#include "graph/run.h"
#include "io/error.h"
#include "support/files.h"

#include <sstream>

namespace {

using namespace tilegrid;
using namespace tilegrid::graph;
using tilegrid::test::contains;
using tilegrid::test::errorOf;
using tilegrid::test::TestFolder;
using Words = std::vector<std::string>;

Plan planOf(Words const& words)
{
    return makePlan(parseChain(words, [](std::string const&) { return false; }));
}

std::string resultOf(Words const& words, std::uint64_t maxBytes = std::uint64_t(1) << 30)
{
    std::ostringstream results;
    std::string messages;
    run(planOf(words), {.job = nullptr,
                        .threads = 2,
                        .maxBytes = maxBytes,
                        .results = results,
                        .messages = [&messages](Severity, Corvid::StringView text) { messages += std::string(std::string_view(text)) + "\n"; },
                        .progress = [](Progress const&) {}});
    return results.str() + messages;
}

constexpr char kPoints[] = "x,y,z,heat\n0,0,0,4\n1,0.5,0.25,2\n";

TEST(Algorithms, points_pass_through_every_form_of_file)
{
    const TestFolder folder;
    const std::string source = folder.write("points.csv", kPoints);
    EXPECT_EQ(resultOf({"read", source, "!", "write", folder.file("a.ply")}), "");
    EXPECT_EQ(resultOf({"read", folder.file("a.ply"), "!", "write", folder.file("b.vdb")}), "");
    EXPECT_EQ(resultOf({"read", folder.file("b.vdb"), "!", "write", folder.file("sub/c.csv")}), "");
    EXPECT_TRUE(contains(folder.read("sub/c.csv"), "x,y,z,heat\n"));
    EXPECT_EQ(folder.read("sub/c.csv").size(), std::string(kPoints).size());
}

TEST(Algorithms, a_ply_file_with_faces_still_needs_a_voxel_size)
{
    const TestFolder folder;
    const std::string mesh = folder.write("mesh.ply", "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\nproperty float z\n"
                                                      "element face 1\nproperty list uchar int vertex_indices\nend_header\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n");
    EXPECT_TRUE(contains(errorOf<UsageError>([&] { resultOf({"read", mesh, "!", "info"}); }), "'voxel' is missing"));
}

TEST(Algorithms, a_volume_is_not_written_as_points_nor_points_as_a_mesh)
{
    const TestFolder folder;
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { resultOf({"create_empty_volume", "1", "!", "write", folder.file("a.csv")}); }), "this is a volume"));
    const std::string source = folder.write("points.csv", kPoints);
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { resultOf({"read", source, "!", "write", folder.file("a.obj")}); }), ".csv, .ply or .vdb"));
}

TEST(Algorithms, points_are_splatted_analyzed_and_resampled)
{
    const TestFolder folder;
    const std::string source = folder.write("points.csv", kPoints);
    const Words start{"read", source, "as=p", "!", "create_empty_volume", "0.5", "structure=binary", "as=v", "!",
                      "splat_points_into_volume", "v", "p", "heat", "radius=2vx", "normalize=true"};
    const auto with = [&start](Words const& more) {
        Words words = start;
        words.insert(words.end(), more.begin(), more.end());
        return words;
    };
    EXPECT_TRUE(contains(resultOf(with({"!", "info", "--json"})), "\"name\":\"heat\",\"type\":\"float\""));
    EXPECT_TRUE(contains(resultOf(with({"!", "analyze_volume", "heat", "gradient", "output_property=slope", "!", "info", "--json"})),
                         "\"name\":\"slope\",\"type\":\"float3\""));
    EXPECT_TRUE(contains(resultOf(with({"!", "resample_volume", "transform=2,0,0,0,2,0,0,0,2,1,0,0", "!", "get_voxel_size"})), "1\n"));
    EXPECT_TRUE(contains(resultOf(with({"as=s", "!", "create_empty_volume", "0.5", "structure=quinary", "as=t", "!", "resample_into_volume", "s", "t", "!", "info", "--json"})),
                         "\"name\":\"heat\""));
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { resultOf(with({"!", "analyze_volume", "heat", "curl"})); }), "float3, double3"));
    EXPECT_TRUE(contains(errorOf<UsageError>([&] { resultOf(with({"!", "resample_volume", "transform=1,2"})); }), "four rows"));
}

TEST(Algorithms, splatting_refuses_what_takes_too_much_and_what_does_not_fit)
{
    const TestFolder folder;
    const std::string source = folder.write("points.csv", kPoints);
    const auto splat = [&](Words const& more) {
        Words words{"read", source, "as=p", "!", "create_empty_volume", "0.01", "as=v", "!", "update_voxel_position", "v", "property=heat", "as=w", "!"};
        words.insert(words.end(), more.begin(), more.end());
        return errorOf<io::InputError>([&] { resultOf(words, 1 << 20); });
    };
    EXPECT_TRUE(contains(splat({"splat_points_into_volume", "v", "p", "q", "radius=1"}), "the limit is 1.0 MiB"));
    EXPECT_TRUE(contains(splat({"splat_points_into_volume", "w", "p", "heat"}), "of another type"));
    EXPECT_TRUE(contains(splat({"splat_points_into_volume", "v", "v", "heat"}), "no point cloud"));
}

}  // namespace
