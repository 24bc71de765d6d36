#include "io/attributes.h"
#include "io/error.h"
#include "io/mesh_readers.h"
#include "io/text_scan.h"

namespace tilegrid::io {

namespace {

/// Lines of an OBJ file; a backslash at the end joins a line to the next.
class ObjReader {
public:
    ObjReader(std::string_view content, std::uint64_t maxBytes) : rest_(content), builder_(maxBytes) {}

    PolygonMesh run()
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
        if (largest_ > builder_.vertexCount())
            failAt(largestLine_,
                   "a face names vertex " + std::to_string(largest_) + ", and the file has "
                       + std::to_string(builder_.vertexCount()));
        std::vector<Attribute> attributes;
        if (!colors_.empty() && colors_.size() == 3 * builder_.vertexCount())
            attributes.push_back(colorsFromCodes(std::move(colors_)));
        return builder_.take(std::move(attributes));
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
        if (key == "v")
            scanVertex(line);
        else if (key == "f")
            scanFace(line);
    }
    void scanVertex(std::string_view line)
    {
        double place[3];
        takeCoordinates(line, line_, place);
        builder_.addVertex(place[0], place[1], place[2]);
        // A fourth number alone is a weight.
        double color[3];
        int count = 0;
        for (; count < 3; ++count) {
            const auto value = realFrom(takeWord(line));
            if (!value || !isFiniteFloat(*value)) return;
            color[count] = *value;
        }
        for (double code : color) colors_.push_back(static_cast<float>(code));
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
            if (size == 0 || (backwards && size > builder_.vertexCount()))
                failAt(line_,
                       "a face names vertex " + std::to_string(*index) + ", and there are "
                           + std::to_string(builder_.vertexCount()) + " before it");
            if (!backwards && size > largest_) largest_ = size, largestLine_ = line_;
            builder_.addCorner(static_cast<std::int64_t>(backwards ? builder_.vertexCount() - size : size - 1));
        }
        if (corners < 3) failAt(line_, "a face with fewer than three corners; the file may be cut off");
        builder_.endPolygon();
    }

    std::string_view rest_;
    PolygonBuilder builder_;
    std::vector<float> colors_;
    std::uint64_t line_ = 0, largest_ = 0, largestLine_ = 0;
};

}  // namespace

PolygonMesh objMesh(std::string_view content, std::uint64_t maxBytes) { return ObjReader(content, maxBytes).run(); }

}  // namespace tilegrid::io
