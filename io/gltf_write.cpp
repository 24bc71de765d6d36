#include "io/error.h"
#include "io/gltf.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <bit>
#include <cmath>
#include <ostream>

namespace tilegrid::io {

using Ostara::Math::float3;
using Ostara::Math::int3;

namespace {

static_assert(std::endian::native == std::endian::little, "numbers go into the file as they lie in memory");

using OrderedJson = nlohmann::ordered_json;

constexpr int kFloat = 5126, kUnsignedInt = 5125;      // component types
constexpr int kVertexBuffer = 34962, kIndexBuffer = 34963;  // what a view is for
constexpr std::uint32_t kMagic = 0x46546c67, kVersion = 2, kJsonChunk = 0x4e4f534a, kBinaryChunk = 0x004e4942;

/// The binary part as a list of what lies in it, one after the other, and its description.
class Layout {
public:
    /// \return the number of the accessor. All numbers have four bytes, so each begins where the form asks for it.
    int add(void const* data, std::uint64_t count, int components, int componentType, int target)
    {
        const std::uint64_t bytes = count * std::uint64_t(components) * 4;
        views_.push_back({{"buffer", 0}, {"byteOffset", bytes_}, {"byteLength", bytes}, {"target", target}});
        accessors_.push_back({{"bufferView", views_.size() - 1}, {"componentType", componentType}, {"count", count},
                              {"type", components == 1 ? "SCALAR" : "VEC3"}});
        parts_.emplace_back(static_cast<char const*>(data), bytes);
        bytes_ += bytes;
        return static_cast<int>(accessors_.size()) - 1;
    }
    OrderedJson& accessor(int index) { return accessors_[std::size_t(index)]; }
    std::uint64_t bytes() const { return bytes_; }
    OrderedJson const& views() const { return views_; }
    OrderedJson const& accessors() const { return accessors_; }
    void write(std::ostream& out) const
    {
        for (auto const& [data, bytes] : parts_) out.write(data, static_cast<std::streamsize>(bytes));
    }

private:
    OrderedJson views_ = OrderedJson::array(), accessors_ = OrderedJson::array();
    std::vector<std::pair<char const*, std::uint64_t>> parts_;
    std::uint64_t bytes_ = 0;
};

void setBounds(OrderedJson& accessor, std::vector<float3> const& vertices)
{
    float3 low = vertices.empty() ? float3() : vertices.front(), high = low;
    for (float3 const& v : vertices)
        for (int axis = 0; axis < 3; ++axis) low[axis] = std::min(low[axis], v[axis]), high[axis] = std::max(high[axis], v[axis]);
    accessor["min"] = OrderedJson::array({low.x, low.y, low.z});
    accessor["max"] = OrderedJson::array({high.x, high.y, high.z});
}

/// Of length 1, as the form asks; up where there is none.
std::vector<float3> unitNormals(TriangleMesh const& mesh)
{
    std::vector<float3> normals;
    if (!mesh.hasNormals()) return normals;
    for (float3 const& n : mesh.normals) {
        const float size = length(n);
        normals.push_back(size > 0.0f && std::isfinite(size) ? (1.0f / size) * n : float3(0, 0, 1));
    }
    return normals;
}

void put(std::ostream& out, std::uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8) out.put(static_cast<char>(value >> shift & 255u));
}

}  // namespace

void writeGlb(std::ostream& out, TriangleMesh const& mesh, std::vector<Attribute const*> const& attributes)
{
    static_assert(sizeof(float3) == 12 && sizeof(int3) == 12);
    const std::uint64_t vertices = mesh.vertices.size();
    OrderedJson text = {{"asset", {{"version", "2.0"}, {"generator", "TilegridOps"}}}, {"scene", 0}};
    Layout layout;
    const std::vector<float3> normals = unitNormals(mesh);
    // A scene without triangles holds nothing: empty accessors may not be.
    if (mesh.triangles.empty()) {
        text["scenes"] = OrderedJson::array({OrderedJson::object()});
    } else {
        OrderedJson primitive = {{"attributes", OrderedJson::object()}};
        const int positions = layout.add(mesh.vertices.data(), vertices, 3, kFloat, kVertexBuffer);
        setBounds(layout.accessor(positions), mesh.vertices);
        primitive["attributes"]["POSITION"] = positions;
        if (!normals.empty()) primitive["attributes"]["NORMAL"] = layout.add(normals.data(), vertices, 3, kFloat, kVertexBuffer);
        for (Attribute const* attribute : attributes) {
            const std::string name = attribute->name == kColor && attribute->components == 3 ? "COLOR_0" : "_" + attribute->name;
            primitive["attributes"][name] = layout.add(attribute->values.data(), vertices, attribute->components, kFloat, kVertexBuffer);
        }
        primitive["indices"] = layout.add(mesh.triangles.data(), 3 * mesh.triangles.size(), 1, kUnsignedInt, kIndexBuffer);
        text["scenes"][0]["nodes"][0] = 0;
        text["nodes"][0]["mesh"] = 0;
        text["meshes"][0]["primitives"][0] = primitive;
        text["accessors"] = layout.accessors();
        text["bufferViews"] = layout.views();
        text["buffers"][0]["byteLength"] = layout.bytes();
    }
    std::string json = text.dump();
    json.resize((json.size() + 3) / 4 * 4, ' ');
    constexpr std::uint64_t kHeader = 12, kChunkHeader = 8;
    const std::uint64_t total = kHeader + kChunkHeader + json.size() + (layout.bytes() > 0 ? kChunkHeader + layout.bytes() : 0);
    if (total > UINT32_MAX) throw InputError("the mesh takes more than the 4 GiB that a .glb file can count: write .ply");
    for (const std::uint64_t number : {std::uint64_t(kMagic), std::uint64_t(kVersion), total, std::uint64_t(json.size()), std::uint64_t(kJsonChunk)})
        put(out, static_cast<std::uint32_t>(number));
    out << json;
    if (layout.bytes() == 0) return;
    put(out, static_cast<std::uint32_t>(layout.bytes()));
    put(out, kBinaryChunk);
    layout.write(out);
}

}  // namespace tilegrid::io
