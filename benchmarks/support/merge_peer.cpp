#include "benchmarks/support/merge_peer.h"

#include <openvdb/openvdb.h>
#include <openvdb/tools/Composite.h>
#include <openvdb/tools/GridTransformer.h>
#include <openvdb/tools/LevelSetSphere.h>
#include <openvdb/tools/MeshToVolume.h>

namespace bench {

using openvdb::FloatGrid, openvdb::Vec3SGrid;

struct PeerPair::Content {
    FloatGrid::Ptr first, second;
    Vec3SGrid::Ptr firstProperty, secondProperty;
};

namespace {

FloatGrid::Ptr levelSet(tilegrid::io::TriangleMesh const& mesh, float voxelSize)
{
    std::vector<openvdb::Vec3s> points;
    for (auto const& v : mesh.vertices) points.emplace_back(v.x, v.y, v.z);
    std::vector<openvdb::Vec3I> faces;
    for (auto const& t : mesh.triangles) faces.emplace_back(t.x, t.y, t.z);
    return openvdb::tools::meshToLevelSet<FloatGrid>(*openvdb::math::Transform::createLinearTransform(voxelSize), points, faces, 3.0f);
}

/// The world place of each active voxel.
Vec3SGrid::Ptr propertyOn(FloatGrid const& grid)
{
    auto property = Vec3SGrid::create(openvdb::Vec3s(0));
    property->setTransform(grid.transformPtr()->copy());
    property->tree().topologyUnion(grid.tree());
    for (auto value = property->beginValueOn(); value; ++value) value.setValue(openvdb::Vec3s(grid.indexToWorld(value.getCoord())));
    return property;
}

}  // namespace

PeerPair::PeerPair(std::unique_ptr<Content> content) : content_(std::move(content))
{
    content_->firstProperty = propertyOn(*content_->first);
    content_->secondProperty = propertyOn(*content_->second);
}
PeerPair::PeerPair(PeerPair&&) noexcept = default;
PeerPair::~PeerPair() = default;

PeerPair PeerPair::meshes(tilegrid::io::TriangleMesh const& first, float firstVoxel, tilegrid::io::TriangleMesh const& second, float secondVoxel)
{
    openvdb::initialize();
    return PeerPair(std::make_unique<Content>(Content{levelSet(first, firstVoxel), levelSet(second, secondVoxel), {}, {}}));
}

PeerPair PeerPair::spheres(Ostara::Math::float3 const& first, float firstVoxel, Ostara::Math::float3 const& second, float secondVoxel, float radius)
{
    openvdb::initialize();
    const auto sphere = [radius](auto const& centre, float voxel) {
        return openvdb::tools::createLevelSetSphere<FloatGrid>(radius, openvdb::Vec3f(centre.x, centre.y, centre.z), voxel, 3.0f);
    };
    return PeerPair(std::make_unique<Content>(Content{sphere(first, firstVoxel), sphere(second, secondVoxel), {}, {}}));
}

std::int64_t PeerPair::unionActive() const
{
    return std::int64_t(openvdb::tools::csgUnionCopy(*content_->first, *content_->second)->activeVoxelCount());
}

std::int64_t PeerPair::firstActive() const
{
    return std::int64_t(content_->first->activeVoxelCount());
}

std::uint64_t PeerPair::unionCopy() const
{
    return openvdb::tools::csgUnionCopy(*content_->first, *content_->second)->tree().leafCount();
}

std::uint64_t PeerPair::unionResampled() const
{
    auto resampled = FloatGrid::create(content_->second->background());
    resampled->setTransform(content_->first->transformPtr()->copy());
    resampled->setGridClass(openvdb::GRID_LEVEL_SET);
    openvdb::tools::resampleToMatch<openvdb::tools::BoxSampler>(*content_->second, *resampled);
    return openvdb::tools::csgUnionCopy(*content_->first, *resampled)->tree().leafCount();
}

std::uint64_t PeerPair::sumResampled() const
{
    auto resampled = Vec3SGrid::create(openvdb::Vec3s(0));
    resampled->setTransform(content_->first->transformPtr()->copy());
    openvdb::tools::resampleToMatch<openvdb::tools::BoxSampler>(*content_->secondProperty, *resampled);
    auto sum = content_->firstProperty->deepCopy();
    openvdb::tools::compSum(*sum, *resampled);
    return sum->tree().leafCount();
}

}  // namespace bench
