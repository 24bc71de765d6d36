#include "io/mesh_properties.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/child_values.h"
#include "TilegridOps/substrate/dependent_values.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/plain_channel.h"
#include "io/sample.h"
#include "io/text.h"
#include "io/triangle_tree.h"
#include "io/volume_access.h"

#include <memory>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

/// A channel that is being filled from an attribute.
template <class Tr> class PropertyTarget {
public:
    virtual ~PropertyTarget() = default;
    /// \param rows  of the attribute, for the three corners
    virtual void set(TreeIndex const& tile, int flat, int3 const& rows, double3 const& weights) = 0;
    /// Makes the values consistent: a voxel above a child has the place of the child's, but of two closest points either may have been
    /// found; hanging voxels lie between the coarser ones.
    virtual void finish(Container<Tr> const& tree, DofChannel<Tr> const& dofs, OST::Object& native) = 0;
};

template <class Tr, class T> class TypedTarget final : public PropertyTarget<Tr> {
public:
    TypedTarget(Container<Tr> const& tree, Attribute const& attribute) : values_(attribute.values)
    {
        const T nothing{};
        channel_ = Corvid::makeMutable<PlainChannel<Tr, T>>(Corvid::String(attribute.name), &nothing, kInitializeLinear, /*poolBacked*/ false,
                                                            /*callElementConstructor*/ true, 0, Tr::maxDepth);
        channel_->updateTilesAdded(tree);
    }
    void set(TreeIndex const& tile, int flat, int3 const& rows, double3 const& weights) override
    {
        T value{};
        if constexpr (std::is_same_v<T, float>) {
            value = mixed(rows, weights, 1, 0);
        } else {
            for (int c = 0; c < 3; ++c) value[c] = mixed(rows, weights, 3, c);
        }
        channel_->tileData(tile)(flat) = value;
    }
    void finish(Container<Tr> const& tree, DofChannel<Tr> const& dofs, OST::Object& native) override
    {
        setNonLeafValueToChildValue(*channel_, tree, kCorner, 0, Tr::maxDepth);
        setNonDOFValues(0, Tr::maxDepth, tree, *channel_, dofs, /*mode: hanging voxels only*/ 0);
        native.putComponent(std::move(channel_));
    }

private:
    float mixed(int3 const& rows, double3 const& weights, int components, int component) const
    {
        double sum = 0.0;
        // A corner without weight counts for nothing, whatever it holds.
        for (int corner = 0; corner < 3; ++corner)
            if (weights[corner] > 0.0) sum += weights[corner] * double(values_[std::size_t(rows[corner]) * std::size_t(components) + std::size_t(component)]);
        return static_cast<float>(sum);
    }

    std::vector<float> const& values_;
    Corvid::MutablePtr<PlainChannel<Tr, T>> channel_;
};

template <class Tr> using Targets = std::vector<std::unique_ptr<PropertyTarget<Tr>>>;

/// Fills its own tile in each step. The searches of a tile begin anew, so the triangle found does not depend on other tiles.
template <class Tr>
void fill(Container<Tr> const& tree, TriangleTree const& surface, std::vector<int3> const& corners, Targets<Tr> const& targets)
{
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        parallel::loop(0, tree.tileCount(depth), 8, [&](OST::int64 begin, OST::int64 end) {
            for (OST::int64 n = begin; n < end; ++n) {
                const TreeIndex index{n, depth};
                auto const& tile = tree.tile(n, depth);
                const double3 first(tile.tijk());
                const double spacing = Tr::voxelDataWidth(depth);
                std::int32_t guess = 0;
                auto effort = TriangleTree::SearchEffort::ofTile(spacing);
                for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                    const int3 ijk = cubeIndex(Tr::width, flat);
                    // Above a child it takes the child's value in the end.
                    if (!tile.isLeaf(tile.voxelChildIJK(ijk.x, ijk.y, ijk.z))) continue;
                    const double3 place = first + spacing * double3(ijk);
                    guess = surface.nearest(place, guess, &effort).triangle;
                    const auto point = surface.barycentric(place, guess);
                    for (auto const& target : targets) target->set(index, flat, corners[std::size_t(point.triangle)], point.weights);
                }
            }
        });
}

template <class Tr> Targets<Tr> makeTargets(OST::Object const& native, Container<Tr> const& tree, TriangleMesh const& mesh, Corvid::RuntimeServices const& services)
{
    Targets<Tr> targets;
    std::vector<std::string> taken;
    for (Corvid::String const& name : native.componentRange()) taken.push_back(name.str());
    for (Attribute const& attribute : mesh.attributes) {
        if (attribute.name.empty() || std::find(taken.begin(), taken.end(), attribute.name) != taken.end()) {
            services.message(Severity::kWarning, "attribute '" + attribute.name + "' of the mesh is left out: the volume has something of that name");
            continue;
        }
        taken.push_back(attribute.name);
        if (attribute.components == 1)
            targets.push_back(std::make_unique<TypedTarget<Tr, float>>(tree, attribute));
        else
            targets.push_back(std::make_unique<TypedTarget<Tr, float3>>(tree, attribute));
    }
    return targets;
}

template <class Tr>
bool addProperties(OST::Object& native, TriangleMesh const& mesh, std::uint64_t maxBytes, Corvid::RuntimeServices const& services)
{
    const auto tree = native.component<Container<Tr>>(Ostara::Geometry::sVoxelTileTree);
    if (!tree) return false;
    double bytes = 0.0;
    for (Attribute const& attribute : mesh.attributes) bytes += double(attribute.components) * sizeof(float) * double(tree->voxelDataCount(-1));
    if (maxBytes > 0 && bytes > double(maxBytes))
        throw InputError("the " + std::to_string(mesh.attributes.size()) + " attributes of the mesh would take about " + byteText(bytes)
                         + " as properties, and the limit is " + byteText(double(maxBytes)) + ": use a larger voxel size, or leave them out");
    std::vector<double3> vertices;
    vertices.reserve(mesh.vertices.size());
    const double perVoxel = tree->voxelSize();
    for (float3 const& v : mesh.vertices) vertices.emplace_back(v.x / perVoxel, v.y / perVoxel, v.z / perVoxel);
    const Targets<Tr> targets = makeTargets<Tr>(native, *tree, mesh, services);
    fill<Tr>(*tree, TriangleTree(vertices, mesh.triangles), mesh.attributeCorners.empty() ? mesh.triangles : mesh.attributeCorners, targets);
    DofChannel<Tr> dofs("dofs", nullptr, kInitializeNone, /*poolBacked*/ false, /*callElementConstructor*/ true, 0, Tr::maxDepth);
    dofs.updateTilesAdded(*tree);
    computeDofs(*tree, dofs);
    for (auto const& target : targets) target->finish(*tree, dofs, native);
    return true;
}

}  // namespace

Corvid::Ptr<Ostara::Object> withMeshProperties(Corvid::Ptr<Ostara::Object> volume, TriangleMesh const& mesh, std::uint64_t maxBytes,
                                               Corvid::RuntimeServices const& services)
{
    if (mesh.attributes.empty()) return volume;
    checkAttributes(mesh);
    const auto object = Corvid::toMutable(volume);
    const auto native = object ? Ostara::Geometry::move_object_to_ost_volume(*object) : Corvid::MutablePtr<OST::Object>();
    if (!native) throw InputError("the object holds no volume");
    if (!addProperties<BinaryTraits>(*native, mesh, maxBytes, services) && !addProperties<QuinaryTraits>(*native, mesh, maxBytes, services))
        throw InputError("the object holds no tile tree");
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

void addPropertiesAtVertices(TriangleMesh& mesh, Ostara::Object const& volume)
{
    std::vector<std::string> names;
    withTree(volume, [&]<class Tr>(OST::Object const& native, Container<Tr> const&, VoxelTopology<Tr> const&) {
        for (std::string const& name : propertyNames<Tr>(native)) {
            const Corvid::String key(name);
            const auto found = []<class C>() {};
            if (key != Ostara::Geometry::sVoxelSignedDistance && (tryLayouts<Tr, float>(native, key, found) || tryLayouts<Tr, float3>(native, key, found)))
                names.push_back(name);
        }
    });
    for (std::string const& name : names) {
        const Samples samples = samplePlaces(volume, name, SampleMode::kLinear, mesh.vertices);
        mesh.attributes.push_back({name, samples.components, std::vector<float>(samples.values.begin(), samples.values.end())});
    }
}

void checkAttributes(TriangleMesh const& mesh)
{
    const bool ownCorners = !mesh.attributeCorners.empty();
    std::size_t rows = mesh.vertices.size();
    if (ownCorners && !mesh.attributes.empty() && mesh.attributes.front().components > 0)
        rows = mesh.attributes.front().values.size() / std::size_t(mesh.attributes.front().components);
    for (Attribute const& attribute : mesh.attributes)
        if ((attribute.components != 1 && attribute.components != 3) || attribute.values.size() != rows * std::size_t(attribute.components))
            throw InputError("attribute '" + attribute.name + "' has " + std::to_string(attribute.values.size()) + " values of "
                             + std::to_string(attribute.components) + " components for " + std::to_string(rows) + " places");
    if (ownCorners && mesh.attributeCorners.size() != mesh.triangles.size())
        throw InputError("the mesh has places of values for " + std::to_string(mesh.attributeCorners.size()) + " of its "
                         + std::to_string(mesh.triangles.size()) + " triangles");
    for (int3 const& corners : mesh.attributeCorners)
        for (int corner = 0; corner < 3 && !mesh.attributes.empty(); ++corner)
            if (corners[corner] < 0 || std::size_t(corners[corner]) >= rows) throw InputError("the mesh has a triangle with a value that is not there");
}

}  // namespace tilegrid::io
