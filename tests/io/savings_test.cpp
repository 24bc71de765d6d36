// What a merged level set saves, measured where the answer is known.
#include "io/savings.h"

#include "TilegridOps/nodes/merge.h"
#include "io/error.h"
#include "io/level_set_from_shape.h"
#include "support/files.h"
#include "support/jobs.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <numbers>
#include <sstream>

namespace tilegrid::test {
namespace {

using Volume = Corvid::Ptr<Ostara::Object>;

Volume ball(double radius, float voxelSize, io::Structure structure = io::Structure::kBinary, float band = 3.0f)
{
    io::LevelSetOptions options;
    options.voxelSize = voxelSize;
    options.bandVoxels = band;
    options.structure = structure;
    return io::levelSetFromShape(io::Sphere{{0.1, 0.2, 0.3}, radius}, options);
}

TEST(Savings, of_a_level_set_beside_itself_are_those_of_its_own_voxels)
{
    const Volume volume = ball(2.0, 0.1f);
    const io::Savings savings = io::measureSavings(*volume, {volume.get()}, io::Combination::kUnion);
    EXPECT_GT(savings.places, 1000);
    EXPECT_EQ(savings.merged.error, 0.0);
    EXPECT_EQ(savings.merged.voxelSize, double(0.1f));
    EXPECT_EQ(savings.finest.voxelSize, double(0.1f));
    // Its nodes are those of the level set, whose places they name up to the rounding of a float.
    EXPECT_LT(savings.finest.error, 1e-5);
    // Six voxels across the band, on an area that marching the cells loses less than a per cent of.
    const double area = 4 * std::numbers::pi * 2.0 * 2.0;
    EXPECT_NEAR(savings.finest.voxels, 6 * area / (0.1 * 0.1), 0.01 * 6 * area / (0.1 * 0.1));
    EXPECT_LE(savings.finest.voxels, savings.sameError.voxels * std::sqrt(2.0) * 1.001);
}

TEST(Savings, know_the_error_of_a_grid_of_larger_voxels)
{
    // The reference knows its distances as far out as places lie.
    const Volume fine = ball(2.0, 0.05f, io::Structure::kBinary, 10.0f), coarse = ball(2.0, 0.2f, io::Structure::kQuinary);
    const io::Savings savings = io::measureSavings(*coarse, {fine.get()}, io::Combination::kUnion);
    // A trilinear cell of width h misses a sphere of radius R by up to a fourth of h^2 / R in the middle of a cell: two axes across
    // the normal, each h^2 / (8 R).
    EXPECT_NEAR(savings.merged.error, 0.2 * 0.2 / (4 * 2.0), 0.25 * 0.2 * 0.2 / (4 * 2.0));
    // A grid with that error has about as large voxels; found in steps of a fourth of an octave.
    EXPECT_GT(savings.sameError.voxelSize, 0.2 / 1.3);
    EXPECT_LT(savings.sameError.voxelSize, 0.2 * 1.3);
}

TEST(Savings, are_the_same_for_any_number_of_threads)
{
    const Volume a = ball(1.0, 0.1f), b = ball(1.5, 0.15f, io::Structure::kQuinary);
    std::string first;
    for (int threads : {1, 2, 8}) {
        std::string text;
        Job job;
        parallel::runJob(&job, threads, [&] { text = io::toJson(io::measureSavings(*a, {a.get(), b.get()}, io::Combination::kIntersection)); });
        if (first.empty()) first = text;
        EXPECT_EQ(text, first) << threads << " threads";
    }
    const auto json = nlohmann::json::parse(first);
    for (char const* kind : {"merged", "same_error", "finest"})
        for (char const* key : {"voxel_size", "voxels", "bytes", "error"}) EXPECT_TRUE(json.at(kind).contains(key)) << kind << " " << key;
}

TEST(Savings, keep_the_columns_of_their_table_apart_and_put_bytes_first)
{
    // Numbers as long as they get.
    const io::LevelSetCost cost{1.23456e-14, 1.23456e+17, 7e17, 1.23456e-14};
    const std::string text = io::toText({30000, cost, {1.23456e-14, 1.5e19, 8.5e19, 1.23456e-14}, cost});
    std::istringstream lines(text);
    std::vector<std::string> line(4);
    for (std::string& next : line) std::getline(lines, next);
    const std::size_t bytes = line[0].find("memory") + 6, times = line[0].find("of merged") + 9, error = line[0].size();
    for (std::string const& each : line) EXPECT_EQ(each.size(), error) << text;
    for (std::string const& row : {line[1], line[2], line[3]}) {
        // Every column ends where its title does, and two blanks stand before it.
        EXPECT_NE(row[bytes - 1], ' ') << text;
        EXPECT_EQ(row.substr(bytes, 2), "  ") << text;
        EXPECT_EQ(row.substr(times, 2), "  ") << text;
        EXPECT_EQ(row.substr(error - 13, 13), "  1.23456e-14") << text;
    }
    EXPECT_LT(line[2].find("same error"), line[2].find("121.4 x")) << text;
    EXPECT_NE(line[2].find("121.4 x"), std::string::npos) << text;
}

TEST(Savings, need_surfaces)
{
    const Volume volume = ball(1.0, 0.1f), nothing = Ostara::createObject();
    EXPECT_THROW(io::measureSavings(*volume, {nothing.get()}, io::Combination::kUnion), io::InputError);
    EXPECT_THROW(io::measureSavings(*nothing, {volume.get()}, io::Combination::kUnion), io::InputError);
}

}  // namespace
}  // namespace tilegrid::test
