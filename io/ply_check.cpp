#include "io/error.h"
#include "io/mesh_check.h"
#include "io/ply.h"
#include "io/text_scan.h"

namespace tilegrid::io {

namespace {

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
    const PlyHeader header = takePlyHeader(content);
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
