#include "support/paths.h"
#include "support/text_match.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace tilegrid::test {
namespace {

namespace fs = std::filesystem;

struct Include {
    std::string file;  // from the repository root
    std::string target;
};

/// What a line includes, with quotes or angle brackets; empty if it does not.
std::string includedBy(std::string const& line)
{
    if (line.find("include") == std::string::npos || !matches(line, "[ \t]*#[ \t]*include[ \t]*[\"<][^\">]+[\">].*"))
        return "";
    const std::size_t begin = line.find_first_of("\"<") + 1;
    return line.substr(begin, line.find_first_of("\">", begin) - begin);
}

/// Every #include line of our own sources.
std::vector<Include> allIncludes()
{
    std::vector<Include> includes;
    const fs::path root(sourceFolder());
    for (char const* top : {"TilegridOps", "io", "graph", "cli"}) {
        if (!fs::exists(root / top)) continue;
        for (auto const& entry : fs::recursive_directory_iterator(root / top)) {
            if (entry.path().extension() != ".h" && entry.path().extension() != ".cpp") continue;
            std::ifstream in(entry.path());
            for (std::string text; std::getline(in, text);)
                if (const std::string target = includedBy(text); !target.empty())
                    includes.push_back({fs::relative(entry.path(), root).generic_string(), target});
        }
    }
    return includes;
}

/// Height of a folder: a file may include from its own height and below. -1: not a folder of ours.
int heightOf(std::string const& path)
{
    static const std::map<std::string, int> heights{{"TilegridOps/host", 0},
                                                    {"TilegridOps/substrate", 1},
                                                    {"TilegridOps/stencils", 2},
                                                    {"TilegridOps/sampling", 2},
                                                    {"TilegridOps/algorithms", 3},
                                                    {"TilegridOps/merge", 3},
                                                    {"TilegridOps/adaptive", 3},
                                                    {"TilegridOps/levelset", 3},
                                                    {"TilegridOps/filter", 3},
                                                    {"TilegridOps/liquid", 3},
                                                    {"TilegridOps/surface", 3},
                                                    {"TilegridOps/nodes", 4},
                                                    {"io", 5},
                                                    {"graph", 6},
                                                    {"cli", 7}};
    for (auto const& [folder, height] : heights)
        if (path.rfind(folder + "/", 0) == 0) return height;
    return -1;
}

TEST(IncludeRules, find_the_sources_at_all)
{
    const auto includes = allIncludes();
    EXPECT_GT(includes.size(), 100u);
    for (char const* wanted : {"TilegridOps/host/", "TilegridOps/substrate/"})
        EXPECT_TRUE(std::any_of(includes.begin(), includes.end(),
                                [wanted](Include const& i) { return i.file.rfind(wanted, 0) == 0; }));
}

TEST(IncludeRules, every_folder_with_sources_has_its_height)
{
    for (Include const& include : allIncludes())
        EXPECT_TRUE(heightOf(include.file) >= 0 || include.file == "TilegridOps/TilegridOps.h") << include.file;
}

TEST(IncludeRules, includes_point_down)
{
    for (auto const& [file, target] : allIncludes()) {
        if (file == "TilegridOps/TilegridOps.h") continue;  // shows everything, and nothing may include it but programs
        EXPECT_FALSE(target == "TilegridOps/TilegridOps.h" && file.rfind("TilegridOps/", 0) == 0) << file;
        if (heightOf(target) >= 0) {
            EXPECT_LE(heightOf(target), heightOf(file)) << file << " includes " << target;
        }
    }
}

TEST(IncludeRules, nothing_above_the_host_knows_the_embedded_host)
{
    for (auto const& [file, target] : allIncludes())
        EXPECT_TRUE(file.rfind("TilegridOps/host/embedded/", 0) == 0 || target.find("embedded/") == std::string::npos)
            << file << " includes " << target;
}

TEST(IncludeRules, sources_of_the_library_name_each_other_from_the_repository_root)
{
    const fs::path root(sourceFolder());
    for (auto const& [file, target] : allIncludes()) {
        const fs::path beside = root / fs::path(file).parent_path() / target;
        EXPECT_FALSE(target.find('/') == std::string::npos && fs::exists(beside))
            << file << " includes " << target << " by its bare name";
        EXPECT_EQ(target.find(".."), std::string::npos) << file;
    }
}

TEST(IncludeRules, only_the_parallel_back_ends_include_the_scheduler)
{
    bool used = false;
    for (auto const& [file, target] : allIncludes()) {
        const bool scheduler = target.rfind("tbb/", 0) == 0 || target.rfind("oneapi/", 0) == 0;
        if (!scheduler) continue;
        used = true;
        EXPECT_TRUE(matches(file, "TilegridOps/substrate/parallel[a-z_]*\\.cpp")) << file << " includes " << target;
    }
    EXPECT_TRUE(used);
}

}  // namespace
}  // namespace tilegrid::test
