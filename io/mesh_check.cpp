#include "io/mesh_check.h"

#include "io/error.h"
#include "io/text_scan.h"

#include <cstring>

namespace tilegrid::io {

namespace {

[[noreturn]] void failAt(std::uint64_t line, std::string const& what)
{
    throw InputError("line " + std::to_string(line) + ": " + what);
}

void checkCoordinates(std::string_view& words, std::uint64_t line)
{
    for (int axis = 0; axis < 3; ++axis) {
        const std::string_view word = takeWord(words);
        if (word.empty()) failAt(line, "a vertex with fewer than three coordinates; the file may be cut off");
        const auto value = realFrom(word);
        if (!value) failAt(line, quoted(word) + " is no number");
        if (!isFiniteFloat(*value))
            failAt(line, "the coordinate " + std::string(word.substr(0, 40)) + " is not a finite number");
    }
}

/// Lines of an OBJ file; a backslash at the end joins a line to the next.
class ObjScan {
public:
    explicit ObjScan(std::string_view content) : rest_(content) {}

    MeshCounts run()
    {
        while (!rest_.empty()) {
            ++line_;
            std::string_view line = takeLine(rest_);
            std::string joined;
            for (; continues(line); line = takeLine(rest_), ++line_)
                joined.append(line.substr(0, line.find_last_of('\\'))).append(" ");
            if (!joined.empty()) line = joined.append(line);
            scan(line);
        }
        if (largest_ > counts_.vertices)
            failAt(largestLine_,
                   "a face names vertex " + std::to_string(largest_) + ", and the file has "
                       + std::to_string(counts_.vertices));
        return counts_;
    }

private:
    static bool continues(std::string_view line)
    {
        while (!line.empty() && isBlank(line.back())) line.remove_suffix(1);
        return !line.empty() && line.back() == '\\';
    }
    void scan(std::string_view line)
    {
        const std::string_view key = takeWord(line);
        if (key == "v") {
            checkCoordinates(line, line_);
            ++counts_.vertices;
        } else if (key == "f") {
            scanFace(line);
        }
    }
    void scanFace(std::string_view line)
    {
        std::uint64_t corners = 0;
        for (std::string_view word = takeWord(line); !word.empty() && word.front() != '#';
             word = takeWord(line), ++corners) {
            const auto index = integerFrom(word.substr(0, word.find('/')));
            if (!index) failAt(line_, quoted(word) + " is no corner of a face");
            const bool backwards = *index < 0;
            const std::uint64_t size =
                backwards ? 0 - static_cast<std::uint64_t>(*index) : static_cast<std::uint64_t>(*index);
            if (size == 0 || (backwards && size > counts_.vertices))
                failAt(line_,
                       "a face names vertex " + std::to_string(*index) + ", and there are "
                           + std::to_string(counts_.vertices) + " before it");
            if (!backwards && size > largest_) largest_ = size, largestLine_ = line_;
        }
        if (corners < 3) failAt(line_, "a face with fewer than three corners; the file may be cut off");
        ++counts_.faces;
        counts_.triangles += corners - 2;
    }

    std::string_view rest_;
    std::uint64_t line_ = 0, largest_ = 0, largestLine_ = 0;
    MeshCounts counts_;
};

constexpr std::size_t kStlHeader = 84, kStlTriangle = 50;

MeshCounts checkTextStl(std::string_view content)
{
    MeshCounts counts;
    bool ended = false;
    for (std::uint64_t line = 1; !content.empty(); ++line) {
        std::string_view words = takeLine(content);
        const std::string_view key = takeWord(words);
        if (key == "vertex") {
            checkCoordinates(words, line);
            ++counts.vertices;
        }
        if (!key.empty()) ended = key == "endsolid";
    }
    if (!ended) throw InputError("the text ends before 'endsolid'; the file is cut off");
    if (counts.vertices % 3 != 0) throw InputError("a facet with fewer than three vertices");
    counts.faces = counts.triangles = counts.vertices / 3;
    return counts;
}

}  // namespace

MeshCounts checkObj(std::string_view content) { return ObjScan(content).run(); }

MeshCounts checkStl(std::string_view content)
{
    // Programs also write binary files that begin with "solid", so the count that fits the size decides first.
    if (content.size() >= kStlHeader) {
        std::uint32_t triangles = 0;
        std::memcpy(&triangles, content.data() + kStlHeader - sizeof triangles, sizeof triangles);
        const std::uint64_t needed = kStlHeader + std::uint64_t(triangles) * kStlTriangle;
        if (needed == content.size()) return {3ull * triangles, triangles, triangles};
        if (content.substr(0, 5) != "solid" && needed > content.size())
            throw InputError("its header counts " + std::to_string(triangles) + " triangles, which take "
                             + std::to_string(needed) + " bytes; the file has " + std::to_string(content.size())
                             + ": cut off, or no STL file");
        if (content.substr(0, 5) != "solid") return {3ull * triangles, triangles, triangles};
    }
    if (content.substr(0, 5) != "solid")
        throw InputError("neither the text form (it begins with 'solid') nor the binary form of STL");
    return checkTextStl(content);
}

MeshCounts checkMeshContent(std::string_view content, std::string const& ending)
{
    if (ending == "obj") return checkObj(content);
    if (ending == "ply") return checkPly(content);
    return checkStl(content);
}

}  // namespace tilegrid::io
