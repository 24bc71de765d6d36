#include "io/error.h"
#include "io/mesh_readers.h"
#include "io/ply.h"
#include "io/points_table.h"
#include "io/text.h"
#include "io/text_scan.h"

#include <algorithm>
#include <iterator>
#include <optional>

namespace tilegrid::io {

namespace {

constexpr char const* kColorNames[] = {"red", "green", "blue"};

bool isCoordinate(std::string const& name) { return name == "x" || name == "y" || name == "z"; }

/// Normals come from the triangles, and no volume has texture coordinates.
bool isLeftOutOfMeshes(std::string const& name)
{
    static constexpr char const* kNames[] = {"nx", "ny", "nz", "s", "t", "u", "v", "texture_u", "texture_v"};
    return std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
}

bool isCorners(PlyProperty const& property)
{
    return property.isList() && (property.name == "vertex_indices" || property.name == "vertex_index");
}

bool isUnsigned(PlyType const& type) { return !type.isReal && !type.isSigned && type.bytes <= 2; }

PlyProperty const* singleNamed(PlyElement const& element, std::string const& name)
{
    for (PlyProperty const& property : element.properties)
        if (property.name == name && !property.isList()) return &property;
    return nullptr;
}

/// Whether all three colours are there, of a type that says what they are: codes that are integers, or linear reals.
bool hasColors(PlyElement const& vertex)
{
    PlyProperty const* const red = singleNamed(vertex, kColorNames[0]);
    if (!red || !(red->value.isReal || isUnsigned(red->value)) || singleNamed(vertex, vectorColumns(kColor)[0])) return false;
    return std::all_of(std::begin(kColorNames), std::end(kColorNames), [&](char const* name) {
        PlyProperty const* const other = singleNamed(vertex, name);
        return other && other->value.bytes == red->value.bytes && other->value.isReal == red->value.isReal && other->value.isSigned == red->value.isSigned;
    });
}

/// What a value of the element `vertex` becomes.
struct Column {
    enum class Code { kPlain, kSrgb, kFraction } code = Code::kPlain;
    /// None: it is passed over.
    std::optional<std::size_t> at;
    /// Of the integers that count to 1.
    double most = 1.0;

    float value(double number) const
    {
        if (code == Code::kSrgb) return linearFromSrgb(number / most);
        return static_cast<float>(code == Code::kFraction ? number / most : number);
    }
};

class PlyReader {
public:
    PlyReader(std::string_view content, std::uint64_t maxBytes, bool mesh)
        : header_(takePlyHeader(content)), values_(content, header_.format), maxBytes_(maxBytes), mesh_(mesh), builder_(maxBytes)
    {
        for (PlyElement const& element : header_.elements) {
            if (element.name == "vertex") vertices_ = element.count;
            // Every value takes a byte at least: no count above the size of the file is walked, or believed.
            if (element.count > content.size() || (element.properties.empty() && element.count > 0))
                throw InputError("the header counts " + std::to_string(element.count) + " elements '" + element.name + "', and only "
                                 + std::to_string(content.size()) + " bytes follow");
        }
    }

    /// Up to the end of the element `vertex`.
    AttributeTable points()
    {
        for (PlyElement const& element : header_.elements) {
            read(element);
            if (element.name == "vertex") return std::move(table_);
        }
        throw InputError("it has no element 'vertex'");
    }

    PolygonMesh mesh()
    {
        for (PlyElement const& element : header_.elements) read(element);
        std::vector<Attribute> attributes = attributesOf(table_);
        table_ = {};
        const auto places = std::find_if(attributes.begin(), attributes.end(), [](Attribute const& a) { return a.name == "point_position" && a.components == 3; });
        if (places == attributes.end()) throw InputError("its vertices have no x, y and z");
        for (std::size_t n = 0; n < places->values.size(); n += 3) builder_.addVertex(places->values[n], places->values[n + 1], places->values[n + 2]);
        attributes.erase(places);
        return builder_.take(std::move(attributes));
    }

private:
    void read(PlyElement const& element)
    {
        element_ = &element;
        const bool isVertex = element.name == "vertex", isStrip = element.name == "tristrips";
        if (isVertex) planColumns();
        for (at_ = 0; at_ < element.count; ++at_) {
            std::size_t n = 0;
            for (PlyProperty const& property : element.properties) {
                const bool corners = mesh_ && isCorners(property);
                if (corners && (isStrip || element.name == "face"))
                    readCorners(property, isStrip);
                else if (isVertex && !property.isList())
                    readValue(property, columns_[n]);
                else
                    skip(property);
                ++n;
            }
        }
    }
    double take(PlyType const& type)
    {
        double value = 0.0;
        if (!values_.take(type, value))
            throw InputError("the header counts " + std::to_string(element_->count) + " elements '" + element_->name
                             + "', and the file ends in number " + std::to_string(at_ + 1) + ": cut off, or a wrong count");
        return value;
    }
    double takeLength(PlyProperty const& property)
    {
        const double length = take(property.length);
        if (!(length >= 0.0)) throw InputError("a list with a negative length in element '" + element_->name + "' " + std::to_string(at_ + 1));
        return length;
    }
    /// Ends at the end of the file, however long a list says it is.
    void skip(PlyProperty const& property)
    {
        const double length = property.isList() ? takeLength(property) : 1.0;
        for (double n = 0.0; n < length; n += 1.0) take(property.value);
    }

    void planColumns()
    {
        const bool colors = hasColors(*element_);
        table_ = {};
        columns_.clear();
        for (PlyProperty const& property : element_->properties) {
            Column column;
            std::string name = property.name;
            const auto color = std::find(std::begin(kColorNames), std::end(kColorNames), name) - std::begin(kColorNames);
            const bool integer = isUnsigned(property.value);
            if (colors && color < 3) {
                name = vectorColumns(kColor)[std::size_t(color)];
                if (integer) column.code = Column::Code::kSrgb;
            } else if (colors && name == kAlpha && integer) {
                column.code = Column::Code::kFraction;
            }
            if (integer) column.most = property.value.bytes == 1 ? 255.0 : 65535.0;
            const bool known = name != property.name || column.code != Column::Code::kPlain;
            const bool wanted = mesh_ ? known || isCoordinate(name) || (property.value.isReal && !isLeftOutOfMeshes(name)) : true;
            if (wanted && !property.isList()) {
                column.at = table_.names.size();
                table_.names.push_back(std::move(name));
            }
            columns_.push_back(column);
        }
        table_.columns.resize(table_.names.size());
        if (maxBytes_ > 0 && element_->count * table_.names.size() * sizeof(float) > maxBytes_)
            throw InputError("its " + std::to_string(element_->count) + " points take more than the limit of " + byteText(double(maxBytes_)));
    }
    void readValue(PlyProperty const& property, Column const& column)
    {
        const double value = take(property.value);
        if (!column.at) return;
        const bool coordinate = isCoordinate(property.name);
        if ((!mesh_ || coordinate) && !isFiniteFloat(value))
            throw InputError(mesh_ ? "vertex " + std::to_string(at_ + 1) + " has a coordinate that is not a finite number"
                                   : "point " + std::to_string(at_ + 1) + " has a '" + property.name + "' that is not a finite number");
        table_.columns[*column.at].push_back(column.value(value));
    }
    void readCorners(PlyProperty const& property, bool isStrip)
    {
        const double length = takeLength(property);
        std::int64_t last[2] = {};
        std::int64_t known = 0;
        for (double n = 0.0; n < length; n += 1.0) {
            const double value = take(property.value);
            if (isStrip && value < 0.0) {
                known = 0;
                continue;
            }
            if (!(value >= 0.0 && value < double(vertices_)))
                throw InputError((isStrip ? "triangle strip " : "face ") + std::to_string(at_ + 1) + " names a vertex that is not there (there are "
                                 + std::to_string(vertices_) + ")");
            const auto vertex = static_cast<std::int64_t>(value);
            if (!isStrip) {
                builder_.addCorner(vertex);
                continue;
            }
            // Every other triangle of a strip turns the other way.
            if (known >= 2) known % 2 == 0 ? builder_.addTriangle(last[0], last[1], vertex) : builder_.addTriangle(last[1], last[0], vertex);
            last[0] = last[1], last[1] = vertex;
            ++known;
        }
        if (!isStrip) builder_.endPolygon();
    }

    PlyHeader header_;
    PlyValues values_;
    std::uint64_t maxBytes_, vertices_ = 0, at_ = 0;
    bool mesh_;
    PolygonBuilder builder_;
    AttributeTable table_;
    std::vector<Column> columns_;
    PlyElement const* element_ = nullptr;
};

}  // namespace

AttributeTable tableFromPly(std::string_view content, std::uint64_t maxBytes) { return PlyReader(content, maxBytes, /*mesh*/ false).points(); }

PolygonMesh plyMesh(std::string_view content, std::uint64_t maxBytes) { return PlyReader(content, maxBytes, /*mesh*/ true).mesh(); }

}  // namespace tilegrid::io
