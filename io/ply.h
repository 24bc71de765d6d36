#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The form of .ply files: a header that names elements and their properties, and their values one after the other.
namespace tilegrid::io {

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

/// Reads the header and takes it off `content`. \throws InputError without the name of the file
PlyHeader takePlyHeader(std::string_view& content);

/// The values behind a header, in one of the three formats.
class PlyValues {
public:
    PlyValues(std::string_view content, PlyFormat format) : rest_(content), format_(format) {}

    /// False at the end of the file. \throws InputError for a word that is no number
    bool take(PlyType const& type, double& value);
    std::string_view rest() const { return rest_; }

private:
    std::string_view rest_;
    PlyFormat format_;
};

}  // namespace tilegrid::io
