#include "io/ply.h"

#include "io/error.h"
#include "io/text_scan.h"

#include <bit>

namespace tilegrid::io {

namespace {

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

double decoded(PlyType const& type, std::uint64_t bits)
{
    if (type.isReal)
        return type.bytes == 4 ? std::bit_cast<float>(static_cast<std::uint32_t>(bits))
                               : std::bit_cast<double>(bits);
    if (!type.isSigned) return static_cast<double>(bits);
    const int unused = 64 - 8 * type.bytes;
    return static_cast<double>(static_cast<std::int64_t>(bits << unused) >> unused);
}

}  // namespace

PlyHeader takePlyHeader(std::string_view& content)
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

bool PlyValues::take(PlyType const& type, double& value)
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

}  // namespace tilegrid::io
