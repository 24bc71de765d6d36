#include "benchmarks/support/peer.h"

#include <openvdb/openvdb.h>
#include <openvdb/points/PointConversion.h>
#include <openvdb/points/PointRasterizeTrilinear.h>

#include <cstring>

namespace bench {

struct PeerPoints::Content {
    openvdb::points::PointDataGrid::Ptr grid;
    mutable std::int64_t voxels = 0;
};

PeerPoints::PeerPoints(std::vector<Ostara::Math::float3> const& positions, std::vector<float> const& values, float voxelSize)
    : content_(std::make_unique<Content>())
{
    using namespace openvdb;
    initialize();
    std::vector<Vec3R> places;
    for (auto const& p : positions) places.emplace_back(p.x, p.y, p.z);
    const points::PointAttributeVector<Vec3R> wrapped(places);
    const auto transform = math::Transform::createLinearTransform(voxelSize);
    const auto index = tools::createPointIndexGrid<tools::PointIndexGrid>(wrapped, *transform);
    content_->grid = points::createPointDataGrid<points::NullCodec, points::PointDataGrid>(*index, wrapped, *transform);
    points::appendAttribute<float>(content_->grid->tree(), "value");
    const points::PointAttributeVector<float> wrappedValues(values);
    points::populateAttribute<points::PointDataTree, tools::PointIndexTree, points::PointAttributeVector<float>>(content_->grid->tree(), index->tree(),
                                                                                                             "value", wrappedValues);
}
PeerPoints::~PeerPoints() = default;

std::uint64_t PeerPoints::rasterizeTrilinear() const
{
    const auto tree = openvdb::points::rasterizeTrilinear</*Staggered*/ false, float>(content_->grid->tree(), "value");
    auto const& floats = static_cast<openvdb::FloatTree const&>(*tree);
    content_->voxels = std::int64_t(floats.activeVoxelCount());
    const float first = *floats.cbeginValueOn();
    std::uint32_t bits;
    std::memcpy(&bits, &first, sizeof bits);
    return bits;
}

std::int64_t PeerPoints::voxelsOfLastResult() const { return content_->voxels; }

}  // namespace bench
