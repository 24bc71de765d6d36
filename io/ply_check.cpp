#include "io/error.h"
#include "io/mesh_check.h"
#include "io/text_scan.h"

#include <bit>
#include <vector>

namespace tilegrid::io {

namespace {

enum class PlyFormat { kText, kLittleEndian, kBigEndian };

struct PlyType {
    int bytes = 0;
    bool isSigned = false, isReal = false;
};

struct PlyProperty {
    std::string name;
    PlyType value;
    /// Type of the length of a list; no bytes: a single value.
    PlyType length;
    bool isList() const { return length.bytes > 0; }
};

struct PlyElement {
    std::string name;
    std::uint64_t count = 0;
    std::vector<PlyProperty> properties;
};

struct PlyHeader {
    PlyFormat format = PlyFormat::kText;
    std::vector<PlyElement> elements;
};

PlyType typeFrom(std::string_view word)
{
    if (word == "char" || word == "int8") return {1, true, false};
    if (word == "uchar" || word == "uint8") return {1, false, false};
    if (word == "short" || word == "int16") return {2, true, false};
    if (word == "ushort" || word == "uint16") return {2, false, false};
    if (word == "int" || word == "int32") return {4, true, false};
    if (word == "uint" || word == "uint32") return {4, false, false};
    if (word == "float" || word == "float32") return {4, true, true};
    if (word == "double" || word == "float64") return {8, true, true};
    throw InputError("the header names the unknown type " + quoted(word));
}

PlyProperty propertyFrom(std::string_view line)
{
    PlyProperty property;
    std::string_view type = takeWord(line);
    if (type == "list") {
        property.length = typeFrom(takeWord(line));
        if (property.length.isReal) throw InputError("the header has a list whose length is no integer");
        type = takeWord(line);
    }
    property.value = typeFrom(type);
    property.name = takeWord(line);
    return property;
}

PlyFormat formatFrom(std::string_view word)
{
    if (word == "ascii") return PlyFormat::kText;
    if (word == "binary_little_endian") return PlyFormat::kLittleEndian;
    if (word == "binary_big_endian") return PlyFormat::kBigEndian;
    throw InputError("the header names the unknown format " + quoted(word));
}

/// Reads the header and takes it off `content`.
PlyHeader takeHeader(std::string_view& content)
{
    std::string_view first = takeLine(content);
    if (takeWord(first) != "ply") throw InputError("it does not begin with 'ply'");
    PlyHeader header;
    while (!content.empty()) {
        std::string_view line = takeLine(content);
        const std::string_view key = takeWord(line);
        if (key == "end_header") return header;
        if (key == "format") header.format = formatFrom(takeWord(line));
        if (key == "element") {
            PlyElement element;
            element.name = takeWord(line);
            const std::string_view count = takeWord(line);
            const auto value = integerFrom(count);
            if (!value || *value < 0)
                throw InputError("the header has " + quoted(count) + " for the number of elements '" + element.name
                                 + "'");
            element.count = static_cast<std::uint64_t>(*value);
            header.elements.push_back(std::move(element));
        }
        if (key == "property") {
            if (header.elements.empty()) throw InputError("the header has a property before any element");
            header.elements.back().properties.push_back(propertyFrom(line));
        }
    }
    throw InputError("the header has no end; the file is cut off");
}

[[noreturn]] void cutOff(PlyElement const& element, std::uint64_t at)
{
    throw InputError("the header counts " + std::to_string(element.count) + " elements '" + element.name
                     + "', and the file ends in number " + std::to_string(at + 1) + ": cut off, or a wrong count");
}

bool isVertexIndices(PlyElement const& element, PlyProperty const& property)
{
    return element.name == "face" && (property.name == "vertex_indices" || property.name == "vertex_index");
}

bool isCoordinate(PlyElement const& element, PlyProperty const& property)
{
    return element.name == "vertex" && (property.name == "x" || property.name == "y" || property.name == "z");
}

/// The values behind a header, one after the other, in one of the three formats.
class PlyValues {
public:
    PlyValues(std::string_view content, PlyFormat format) : rest_(content), format_(format) {}

    /// False at the end of the file.
    bool take(PlyType const& type, double& value)
    {
        if (format_ == PlyFormat::kText) {
            const std::string_view word = takeWord(rest_, /*overLines*/ true);
            if (word.empty()) return false;
            const auto number = realFrom(word);
            if (!number) throw InputError(quoted(word) + " stands where a number should");
            value = *number;
            return true;
        }
        if (rest_.size() < static_cast<std::size_t>(type.bytes)) return false;
        std::uint64_t bits = 0;
        for (int n = 0; n < type.bytes; ++n) {
            const int at = format_ == PlyFormat::kBigEndian ? n : type.bytes - 1 - n;  // highest byte first
            bits = bits << 8 | static_cast<unsigned char>(rest_[at]);
        }
        rest_.remove_prefix(type.bytes);
        value = decoded(type, bits);
        return true;
    }

    std::string_view rest() const { return rest_; }

private:
    static double decoded(PlyType const& type, std::uint64_t bits)
    {
        if (type.isReal)
            return type.bytes == 4 ? std::bit_cast<float>(static_cast<std::uint32_t>(bits))
                                   : std::bit_cast<double>(bits);
        if (!type.isSigned) return static_cast<double>(bits);
        const int unused = 64 - 8 * type.bytes;
        return static_cast<double>(static_cast<std::int64_t>(bits << unused) >> unused);
    }

    std::string_view rest_;
    PlyFormat format_;
};

/// Walks all values of one element, and counts what it adds to the mesh.
class PlyElementWalk {
public:
    PlyElementWalk(PlyElement const& element, std::uint64_t vertices, MeshCounts& counts)
        : element_(element), vertices_(vertices), counts_(counts)
    {}
    void run(PlyValues& values)
    {
        for (at_ = 0; at_ < element_.count; ++at_)
            for (PlyProperty const& property : element_.properties) walk(property, values);
    }

private:
    void walk(PlyProperty const& property, PlyValues& values)
    {
        double length = 1.0;
        if (property.isList() && !values.take(property.length, length)) cutOff(element_, at_);
        if (!(length >= 0.0))
            throw InputError("a list with a negative length in element '" + element_.name + "' "
                             + std::to_string(at_ + 1));
        const bool corners = property.isList() && isVertexIndices(element_, property);
        // Ends at the end of the file, however long the list says it is.
        for (double n = 0.0; n < length; n += 1.0) {
            double value = 0.0;
            if (!values.take(property.value, value)) cutOff(element_, at_);
            if (corners && !(value >= 0.0 && value < double(vertices_)))
                throw InputError("face " + std::to_string(at_ + 1) + " names a vertex that is not there (there are "
                                 + std::to_string(vertices_) + ")");
            if (isCoordinate(element_, property) && !isFiniteFloat(value))
                throw InputError("vertex " + std::to_string(at_ + 1) + " has a coordinate that is not a finite number");
        }
        if (corners && length >= 3.0) {
            ++counts_.faces;
            counts_.triangles += static_cast<std::uint64_t>(length) - 2;
        }
    }

    PlyElement const& element_;
    std::uint64_t vertices_, at_ = 0;
    MeshCounts& counts_;
};

}  // namespace

MeshCounts checkPly(std::string_view content)
{
    const PlyHeader header = takeHeader(content);
    MeshCounts counts;
    for (PlyElement const& element : header.elements) {
        if (element.name == "vertex") counts.vertices = element.count;
        // Every element takes a byte at least: no count above the size of the file is walked, or believed.
        if (element.count > content.size() || (element.properties.empty() && element.count > 0))
            throw InputError("the header counts " + std::to_string(element.count) + " elements '" + element.name
                             + "', and only " + std::to_string(content.size()) + " bytes follow");
    }
    PlyValues values(content, header.format);
    for (PlyElement const& element : header.elements) PlyElementWalk(element, counts.vertices, counts).run(values);
    return counts;
}

}  // namespace tilegrid::io
