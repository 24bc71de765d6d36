#include "io/attributes.h"
#include "io/error.h"
#include "io/mesh_readers.h"
#include "io/text_scan.h"

namespace tilegrid::io {

namespace {

/// Numbers that stand behind the coordinates of a vertex, by the letters before OFF.
struct OffLayout {
    bool colors = false, normals = false;
};

/// A text of lines; # begins a remark.
class OffReader {
public:
    OffReader(std::string_view content, std::uint64_t maxBytes) : rest_(content), builder_(maxBytes) {}

    PolygonMesh run()
    {
        std::string_view words = nextLine();
        layout_ = layoutOf(words);
        if (words.empty()) words = nextLine();
        const std::int64_t vertices = takeCount(words, "vertices"), faces = takeCount(words, "faces");
        for (std::int64_t n = 0; n < vertices; ++n) readVertex(nextOf("vertices", vertices, n));
        for (std::int64_t n = 0; n < faces; ++n) readFace(nextOf("faces", faces, n));
        std::vector<Attribute> attributes;
        if (!colors_.empty() && colors_.size() == 3 * builder_.vertexCount())
            attributes.push_back(colorsFromCodes(std::move(colors_)));
        return builder_.take(std::move(attributes));
    }

private:
    /// The next line that holds something, without its remark; empty at the end.
    std::string_view nextLine()
    {
        while (!rest_.empty()) {
            ++line_;
            std::string_view line = takeLine(rest_);
            line = trimmed(line.substr(0, line.find('#')));
            if (!line.empty()) return line;
        }
        return {};
    }
    std::string_view nextOf(char const* what, std::int64_t count, std::int64_t at)
    {
        const std::string_view line = nextLine();
        if (line.empty())
            throw InputError("the header counts " + std::to_string(count) + " " + what + ", and the file ends after "
                             + std::to_string(at) + ": cut off, or a wrong count");
        return line;
    }
    /// Takes the word OFF with its letters off the first line. A file may lack it.
    OffLayout layoutOf(std::string_view& words) const
    {
        if (integerFrom(words.substr(0, words.find_first_of(" \t")))) return {};
        const std::string_view word = takeWord(words);
        words = trimmed(words);
        if (!word.ends_with("OFF")) throw InputError("it does not begin with 'OFF'");
        OffLayout layout;
        std::string_view letters = word.substr(0, word.size() - 3);
        const auto take = [&letters](std::string_view prefix) {
            if (!letters.starts_with(prefix)) return false;
            letters.remove_prefix(prefix.size());
            return true;
        };
        take("ST");  // texture coordinates stand last
        layout.colors = take("C");
        layout.normals = take("N");
        if (!letters.empty())
            throw InputError("it is of the kind " + quoted(word) + ": only places in three dimensions are read");
        if (words.starts_with("BINARY")) throw InputError("it is in the binary form of OFF, which is not read: save it as text");
        return layout;
    }
    std::int64_t takeCount(std::string_view& words, char const* what)
    {
        const std::string_view word = takeWord(words);
        const auto count = integerFrom(word);
        if (!count || *count < 0) failAt(line_, quoted(word) + " is no number of " + what);
        return *count;
    }
    void readVertex(std::string_view words)
    {
        double place[3];
        takeCoordinates(words, line_, place);
        builder_.addVertex(place[0], place[1], place[2]);
        for (int n = 0; layout_.normals && n < 3; ++n) takeWord(words);
        // Some programs write colours without the letter for them.
        float color[3];
        int count = 0;
        for (; count < 3; ++count) {
            const auto value = realFrom(takeWord(words));
            if (!value || !isFiniteFloat(*value)) break;
            color[count] = static_cast<float>(*value);
        }
        if (layout_.colors && count < 3) failAt(line_, "a vertex without the colour that the header promises");
        if (count == 3) colors_.insert(colors_.end(), color, color + 3);
    }
    void readFace(std::string_view words)
    {
        const std::int64_t corners = takeCount(words, "corners");
        for (std::int64_t n = 0; n < corners; ++n) {
            const std::string_view word = takeWord(words);
            if (word.empty()) failAt(line_, "a face of " + std::to_string(corners) + " corners that names " + std::to_string(n));
            const auto index = integerFrom(word);
            if (!index || *index < 0 || *index >= std::int64_t(builder_.vertexCount()))
                failAt(line_,
                       "a face names vertex " + quoted(word) + ", and there are " + std::to_string(builder_.vertexCount())
                           + ", counted from 0");
            builder_.addCorner(*index);
        }
        builder_.endPolygon();
    }

    std::string_view rest_;
    PolygonBuilder builder_;
    OffLayout layout_;
    std::vector<float> colors_;
    std::uint64_t line_ = 0;
};

}  // namespace

PolygonMesh offMesh(std::string_view content, std::uint64_t maxBytes) { return OffReader(content, maxBytes).run(); }

}  // namespace tilegrid::io
