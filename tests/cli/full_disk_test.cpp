// The command on a disk that does not take the whole file.
#include "command.h"

#include <gtest/gtest.h>

namespace {

using Words = std::vector<std::string>;

bool holds(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

TEST(FullDisk, ends_every_writer_with_the_reason_and_leaves_the_old_file)
{
    const WorkFolder folder;
    std::string places, steps;
    for (int n = 0; n < 9000; ++n)
        places += std::to_string(n % 97) + "," + std::to_string(n % 89) + "," + std::to_string(n) + ".5\n";
    std::ofstream(folder.path("p.csv")) << places;
    const Words sphere = {"sphere", "radius=1", "voxel=0.04", "!"}, cloud = {"read", "p.csv", "!"};
    const std::pair<Words, std::string> writers[] = {
        {sphere, "flat.vdb"},  {sphere, "levels.vdb"}, {sphere, "mesh.ply"},    {sphere, "mesh.stl"},
        {sphere, "mesh.glb"},  {sphere, "mesh.obj"},   {sphere, "picture.png"}, {sphere, "values.csv"},
        {cloud, "points.csv"}, {cloud, "points.ply"},  {cloud, "points.vdb"},   {sphere, "graph.json"},
    };
    for (auto const& [source, file] : writers) {
        SCOPED_TRACE(file);
        Words words = source;
        if (file == "picture.png")
            words.insert(words.end(), {"slice", file, "cells=1"});
        else if (file == "values.csv")
            words.insert(words.end(), {"sample", "p.csv", "output=" + file});
        else
            words.insert(words.end(), {"write", file == "graph.json" ? "other.ply" : file});
        if (file == "levels.vdb") words.push_back("layout=levels");
        if (file == "graph.json") {
            // Long enough for the limits.
            for (int n = 0; n < 3000; ++n) words.insert(words.end(), {"!", "create_empty_volume", "1"});
            words.insert(words.end(), {"--save", file});
        }
        ASSERT_EQ(folder.run(words).status, 0);
        const std::string whole = fileText(folder.path(file));
        EXPECT_GT(whole.size(), 1u << 15) << "the limits lie within the file";
        std::ofstream(folder.path(file), std::ios::binary) << "old";
        const Words before = folder.files();
        for (const std::size_t limit : {std::size_t(4096), std::size_t(16384), whole.size() - 1}) {
            SCOPED_TRACE(limit);
            const auto result = folder.runLimited(limit, words);
            EXPECT_EQ(result.status, 2) << result.err;
            EXPECT_TRUE(holds(result.err, "cannot write '" + file + "': File too large")) << result.err;
            EXPECT_EQ(fileText(folder.path(file)), "old");
            EXPECT_EQ(folder.files(), before);
        }
        EXPECT_EQ(folder.runLimited(whole.size(), words).status, 0);
        EXPECT_TRUE(fileText(folder.path(file)) == whole);
    }
}

}  // namespace
