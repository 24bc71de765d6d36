#include "io/error.h"
#include "io/gltf.h"
#include "io/gltf_document.h"
#include "io/text.h"

#include <algorithm>
#include <cmath>
#include <optional>

namespace tilegrid::io {

using Ostara::Math::double3;

namespace {

/// More than people name; each costs memory at every vertex.
constexpr std::size_t kMostAttributes = 64;
/// Ways to list triangles (the other modes are points and lines).
constexpr std::uint64_t kTriangles = 4, kStrip = 5, kFan = 6;

/// x -> linear x + move, columns side by side.
struct Placement {
    std::array<double3, 3> columns{double3(1, 0, 0), double3(0, 1, 0), double3(0, 0, 1)};
    double3 move;

    double3 turned(double3 const& p) const { return p.x * columns[0] + p.y * columns[1] + p.z * columns[2]; }
    double3 operator()(double3 const& p) const { return turned(p) + move; }
    /// First the other, then this.
    Placement after(Placement const& other) const
    {
        return {{turned(other.columns[0]), turned(other.columns[1]), turned(other.columns[2])}, (*this)(other.move)};
    }
    bool mirrors() const { return dot(columns[0], cross(columns[1], columns[2])) < 0.0; }
};

/// The numbers of a member; none if it is not there.
template <std::size_t N> std::optional<std::array<double, N>> numbersIn(Json const& node, char const* key)
{
    Json const& list = arrayIn(node, key);
    if (list.empty()) return {};
    std::array<double, N> numbers;
    if (list.size() != N) throw InputError(std::string("'") + key + "' of a node has " + std::to_string(list.size()) + " numbers");
    for (std::size_t n = 0; n < N; ++n) {
        if (!list[n].is_number()) throw InputError(std::string("'") + key + "' of a node holds what is no number");
        numbers[n] = list[n].get<double>();
    }
    return numbers;
}

Placement placementOf(Json const& node)
{
    Placement placement;
    if (const auto m = numbersIn<16>(node, "matrix")) {
        for (std::size_t n = 0; n < 3; ++n) placement.columns[n] = {(*m)[4 * n], (*m)[4 * n + 1], (*m)[4 * n + 2]};
        placement.move = {(*m)[12], (*m)[13], (*m)[14]};
        return placement;
    }
    if (const auto q = numbersIn<4>(node, "rotation")) {
        const auto [x, y, z, w] = *q;
        placement.columns = {double3(1 - 2 * (y * y + z * z), 2 * (x * y + w * z), 2 * (x * z - w * y)),
                             double3(2 * (x * y - w * z), 1 - 2 * (x * x + z * z), 2 * (y * z + w * x)),
                             double3(2 * (x * z + w * y), 2 * (y * z - w * x), 1 - 2 * (x * x + y * y))};
    }
    if (const auto s = numbersIn<3>(node, "scale"))
        for (std::size_t n = 0; n < 3; ++n) placement.columns[n] = (*s)[n] * placement.columns[n];
    if (const auto t = numbersIn<3>(node, "translation")) placement.move = {(*t)[0], (*t)[1], (*t)[2]};
    return placement;
}

class GltfReader {
public:
    GltfReader(std::string_view content, std::string const& path, std::uint64_t maxBytes, Corvid::RuntimeServices const& services)
        : document_(content, path, maxBytes), maxBytes_(maxBytes), services_(services), builder_(maxBytes)
    {}

    PolygonMesh run()
    {
        struct Pending {
            std::uint64_t node;
            Placement parent;
        };
        std::vector<Pending> stack;
        std::vector<bool> seen(arrayIn(document_.json(), "nodes").size());
        const auto push = [&](std::uint64_t node, Placement const& parent) {
            document_.element("nodes", node);
            // Of one parent each: so there is no loop, and no node comes twice.
            if (seen[node]) throw InputError("node " + std::to_string(node) + " hangs on two others, or on itself");
            seen[node] = true;
            stack.push_back({node, parent});
        };
        const auto pushAll = [&](std::vector<std::uint64_t> const& nodes, Placement const& parent) {
            // The last is taken first: so that nodes come in their order.
            for (auto node = nodes.rbegin(); node != nodes.rend(); ++node) push(*node, parent);
        };
        pushAll(roots(), {});
        while (!stack.empty()) {
            const Pending next = stack.back();
            stack.pop_back();
            Json const& node = document_.element("nodes", next.node);
            const Placement placement = next.parent.after(placementOf(node));
            if (node.contains("mesh")) addMesh(document_.element("meshes", countIn(node, "mesh")), placement);
            if (node.contains("skin") && !warned_) warnOfShape();
            pushAll(indicesOf(arrayIn(node, "children")), placement);
        }
        return builder_.take(takeAttributes());
    }

private:
    static std::vector<std::uint64_t> indicesOf(Json const& list)
    {
        std::vector<std::uint64_t> indices;
        for (Json const& index : list) {
            if (!index.is_number_unsigned()) throw InputError("a list of nodes holds what is no index");
            indices.push_back(index.get<std::uint64_t>());
        }
        return indices;
    }
    /// Of the scene that is to be shown, else of the first; without scenes, the nodes that are no children.
    std::vector<std::uint64_t> roots() const
    {
        Json const& all = document_.json();
        if (!arrayIn(all, "scenes").empty()) return indicesOf(arrayIn(document_.element("scenes", countIn(all, "scene", 0)), "nodes"));
        Json const& nodes = arrayIn(all, "nodes");
        std::vector<bool> isChild(nodes.size());
        for (Json const& node : nodes)
            for (const std::uint64_t child : indicesOf(arrayIn(node, "children")))
                if (child < isChild.size()) isChild[child] = true;
        std::vector<std::uint64_t> roots;
        for (std::uint64_t n = 0; n < nodes.size(); ++n)
            if (!isChild[n]) roots.push_back(n);
        return roots;
    }
    void warnOfShape()
    {
        warned_ = true;
        services_.message(Severity::kWarning, "skins and morph targets are left out: the mesh keeps its base shape");
    }

    void addMesh(Json const& mesh, Placement const& placement)
    {
        // Parts of a mesh often share their vertices.
        std::map<std::string, std::int64_t> known;
        for (Json const& primitive : arrayIn(mesh, "primitives")) {
            const std::uint64_t mode = countIn(primitive, "mode", kTriangles);
            if (mode < kTriangles) continue;
            if (mode > kFan) throw InputError("a part of a mesh has the unknown mode " + std::to_string(mode));
            if (primitive.contains("targets") && !warned_) warnOfShape();
            if (!primitive.contains("attributes") || !primitive["attributes"].is_object()) throw InputError("a part of a mesh has no attributes");
            Json const& attributes = primitive["attributes"];
            checkCompression(primitive, attributes);
            const auto [vertices, isNew] = known.try_emplace(attributes.dump(), std::int64_t(builder_.vertexCount()));
            if (isNew) addVertices(attributes, placement);
            addTriangles(primitive, mode, vertices->second, countIn(document_.element("accessors", countIn(attributes, "POSITION")), "count"), placement.mirrors());
        }
    }
    /// What is compressed has no bytes of its own unless the file holds a plain version as well.
    void checkCompression(Json const& primitive, Json const& attributes) const
    {
        if (!primitive.contains("extensions") || !primitive["extensions"].is_object() || !primitive["extensions"].contains("KHR_draco_mesh_compression")) return;
        if (!document_.element("accessors", countIn(attributes, "POSITION")).contains("bufferView"))
            throw InputError("its meshes are compressed by 'KHR_draco_mesh_compression', which is not read: write it without compression");
    }

    void addVertices(Json const& attributes, Placement const& placement)
    {
        const std::size_t first = builder_.vertexCount();
        const GltfDocument::Rows places = document_.rows(countIn(attributes, "POSITION"));
        if (places.components != 3) throw InputError("POSITION has " + std::to_string(places.components) + " components");
        for (std::uint64_t n = 0; n < places.count; ++n) {
            const double3 p = placement({places.values[3 * n], places.values[3 * n + 1], places.values[3 * n + 2]});
            if (!builder_.addVertex(p.x, p.y, p.z))
                throw InputError("vertex " + std::to_string(n + 1) + " of a part has a coordinate that is not a finite number, or is placed where none is");
        }
        for (auto const& [name, accessor] : attributes.items()) {
            const bool color = name == "COLOR_0";
            if (!color && (name.size() < 2 || name.front() != '_')) continue;
            if (!accessor.is_number_unsigned()) throw InputError("attribute '" + name + "' names no accessor");
            const GltfDocument::Rows rows = document_.rows(accessor.get<std::uint64_t>());
            if (rows.count != places.count)
                throw InputError("attribute '" + name + "' has " + std::to_string(rows.count) + " values for " + std::to_string(places.count) + " vertices");
            if (color)
                addColors(rows, first);
            else if (rows.components == 1 || rows.components == 3)
                put(name.substr(1), rows.components, 0.0f, first, rows.values);
            else
                services_.message(Severity::kWarning, "attribute '" + name + "' is left out: it has " + std::to_string(rows.components) + " components, and 1 or 3 are read");
        }
    }
    void addColors(GltfDocument::Rows const& rows, std::size_t first)
    {
        if (rows.components != 3 && rows.components != 4) throw InputError("COLOR_0 has " + std::to_string(rows.components) + " components");
        const auto components = std::size_t(rows.components);
        std::vector<float> colors, alpha;
        for (std::size_t n = 0; n < rows.count; ++n) {
            colors.insert(colors.end(), rows.values.begin() + std::ptrdiff_t(n * components), rows.values.begin() + std::ptrdiff_t(n * components + 3));
            if (components == 4) alpha.push_back(rows.values[n * components + 3]);
        }
        put(kColor, 3, 1.0f, first, colors);
        if (std::any_of(alpha.begin(), alpha.end(), [](float a) { return a != 1.0f; })) put(kAlpha, 1, 1.0f, first, alpha);
    }

    /// An attribute of all vertices. Those before, and later those that lack it, get the default.
    struct Growing {
        Attribute attribute;
        float otherwise;
    };
    void put(std::string const& name, int components, float otherwise, std::size_t first, std::vector<float> const& values)
    {
        auto found = std::find_if(attributes_.begin(), attributes_.end(), [&name](Growing const& known) { return known.attribute.name == name; });
        if (found == attributes_.end()) {
            if (attributes_.size() == kMostAttributes) throw InputError("its vertices have more than " + std::to_string(kMostAttributes) + " attributes");
            found = attributes_.insert(found, {{name, components, {}}, otherwise});
        }
        if (found->attribute.components != components) {
            services_.message(Severity::kWarning, "attribute '" + name + "' is left out where it has " + std::to_string(components) + " components: it has "
                                                      + std::to_string(found->attribute.components) + " elsewhere");
            return;
        }
        pad(*found, first);
        found->attribute.values.insert(found->attribute.values.end(), values.begin(), values.end());
    }
    void pad(Growing& growing, std::size_t rows) const
    {
        std::uint64_t numbers = 0;
        for (Growing const& known : attributes_) numbers += std::uint64_t(known.attribute.components);
        if (maxBytes_ > 0 && numbers * builder_.vertexCount() * sizeof(float) > maxBytes_)
            throw InputError("the attributes of its vertices take more than the limit of " + byteText(double(maxBytes_)));
        growing.attribute.values.resize(rows * std::size_t(growing.attribute.components), growing.otherwise);
    }
    std::vector<Attribute> takeAttributes()
    {
        std::vector<Attribute> result;
        for (Growing& growing : attributes_) {
            pad(growing, builder_.vertexCount());
            result.push_back(std::move(growing.attribute));
        }
        return result;
    }

    void addTriangles(Json const& primitive, std::uint64_t mode, std::int64_t first, std::uint64_t vertices, bool mirrored)
    {
        std::vector<std::uint32_t> indices;
        if (primitive.contains("indices")) indices = document_.indices(countIn(primitive, "indices"));
        const std::uint64_t count = primitive.contains("indices") ? indices.size() : vertices;
        const auto corner = [&](std::uint64_t n) {
            const std::uint64_t index = primitive.contains("indices") ? indices[n] : n;
            if (index >= vertices)
                throw InputError("a triangle names vertex " + std::to_string(index) + " of a part that has " + std::to_string(vertices) + ", counted from 0");
            return first + std::int64_t(index);
        };
        const std::uint64_t step = mode == kTriangles ? 3 : 1;
        for (std::uint64_t n = 0; n + 3 <= count; n += step) {
            std::int64_t a = corner(mode == kFan ? 0 : n), b = corner(n + 1), c = corner(n + 2);
            // Every other triangle of a strip turns the other way.
            if ((mode == kStrip && n % 2 == 1) != mirrored) std::swap(b, c);
            builder_.addTriangle(a, b, c);
        }
    }

    GltfDocument document_;
    std::uint64_t maxBytes_;
    Corvid::RuntimeServices const& services_;
    PolygonBuilder builder_;
    std::vector<Growing> attributes_;
    bool warned_ = false;
};

}  // namespace

PolygonMesh gltfMesh(std::string_view content, std::string const& path, std::uint64_t maxBytes, Corvid::RuntimeServices const& services)
{
    return GltfReader(content, path, maxBytes, services).run();
}

}  // namespace tilegrid::io
