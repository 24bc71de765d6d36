#include "benchmarks/support/peer.h"
#include "benchmarks/support/peer_transform.h"

#include <openvdb/math/Stencils.h>
#include <openvdb/openvdb.h>
#include <openvdb/tools/Filter.h>
#include <openvdb/tools/GridOperators.h>
#include <openvdb/tools/Interpolation.h>
#include <openvdb/tools/LevelSetSphere.h>
#include <openvdb/tools/MeshToVolume.h>
#include <openvdb/tools/VolumeToMesh.h>
#include <openvdb/tree/LeafManager.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <atomic>
#include <cstring>

namespace bench {

using Ostara::Math::float3;
using Ostara::Math::int3;
using Tree = openvdb::FloatTree;

struct PeerGrid::Content {
    openvdb::FloatGrid::Ptr grid;
    Tree::Ptr second;
    openvdb::FloatGrid::Ptr copy;
    openvdb::FloatGrid::Ptr filtered()
    {
        if (!copy) copy = grid->deepCopy();
        return copy;
    }
};

namespace {

template <class Find> std::uint64_t locate(std::vector<int3> const& places, Find makeFinder)
{
    std::atomic<std::uint64_t> sum{0};
    tbb::parallel_for(tbb::blocked_range<std::size_t>(0, places.size(), 4096), [&](tbb::blocked_range<std::size_t> const& part) {
        auto find = makeFinder();
        std::uint64_t local = 0;
        for (std::size_t n = part.begin(); n < part.end(); ++n) {
            auto const* leaf = find(openvdb::Coord(places[n].x, places[n].y, places[n].z));
            local += leaf ? std::uint64_t(reinterpret_cast<std::uintptr_t>(leaf) >> 6) : 1;
        }
        sum += local;
    });
    // Addresses differ between runs; what counts is that every one was computed.
    return sum ? 1 : 0;
}

/// Sum over all positions of what a reader made per part says; the same for any number of threads.
template <class MakeReader> double sumOver(std::vector<float3> const& positions, MakeReader makeReader)
{
    constexpr std::size_t kPart = 4096;
    std::vector<double> sums((positions.size() + kPart - 1) / kPart);
    tbb::parallel_for(std::size_t(0), sums.size(), [&](std::size_t part) {
        auto read = makeReader();
        double sum = 0;
        for (std::size_t n = part * kPart; n < std::min(positions.size(), (part + 1) * kPart); ++n)
            sum += read(openvdb::Vec3R(positions[n].x, positions[n].y, positions[n].z));
        sums[part] = sum;
    });
    double total = 0;
    for (double sum : sums) total += sum;
    return total;
}

}  // namespace

namespace {

std::uint64_t bitsOf(float value)
{
    std::uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

}  // namespace

std::uint64_t PeerGrid::laplacian() const
{
    const auto result = openvdb::tools::laplacian(*content_->grid);
    return bitsOf(*result->cbeginValueOn());
}

std::uint64_t PeerGrid::gradient() const
{
    const auto result = openvdb::tools::gradient(*content_->grid);
    return bitsOf(float((*result->cbeginValueOn()).x()));
}

std::uint64_t PeerGrid::meanCurvature() const
{
    const auto result = openvdb::tools::meanCurvature(*content_->grid);
    return bitsOf(*result->cbeginValueOn());
}

std::uint64_t PeerGrid::rotated(double angle, bool quadratic) const { return bitsOf(firstOfRotated(*content_->grid, angle, quadratic)); }

std::uint64_t PeerGrid::mean() const
{
    // The filter works in place and keeps its second buffers; the values drift, the work stays.
    openvdb::tools::Filter<openvdb::FloatGrid> filter(*content_->filtered());
    filter.mean(1, 1);
    return bitsOf(*content_->filtered()->cbeginValueOn());
}

std::int64_t PeerGrid::surfaceTriangles() const
{
    std::vector<openvdb::Vec3s> points;
    std::vector<openvdb::Vec4I> quads;
    openvdb::tools::volumeToMesh(*content_->grid, points, quads);
    return 2 * std::int64_t(quads.size());
}

PeerGrid::PeerGrid(std::unique_ptr<Content> content) : content_(std::move(content)) {}
PeerGrid::PeerGrid(PeerGrid&&) noexcept = default;
PeerGrid::~PeerGrid() = default;

PeerGrid PeerGrid::sphere(float radius)
{
    openvdb::initialize();
    auto content = std::make_unique<Content>();
    content->grid = openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(radius, openvdb::Vec3f(0), 1.0f, 3.0f);
    return PeerGrid(std::move(content));
}

PeerGrid PeerGrid::mesh(std::vector<float3> const& vertices, std::vector<int3> const& triangles, float voxelSize)
{
    openvdb::initialize();
    std::vector<openvdb::Vec3s> points;
    for (float3 const& v : vertices) points.emplace_back(v.x, v.y, v.z);
    std::vector<openvdb::Vec3I> faces;
    for (int3 const& t : triangles) faces.emplace_back(t.x, t.y, t.z);
    auto content = std::make_unique<Content>();
    content->grid = openvdb::tools::meshToLevelSet<openvdb::FloatGrid>(*openvdb::math::Transform::createLinearTransform(voxelSize),
                                                                       points, faces, 3.0f);
    return PeerGrid(std::move(content));
}

std::vector<int3> PeerGrid::activeVoxels() const
{
    std::vector<int3> places;
    for (auto it = content_->grid->cbeginValueOn(); it; ++it) {
        const openvdb::Coord c = it.getCoord();
        places.emplace_back(c.x(), c.y(), c.z());
    }
    return places;
}

std::int64_t PeerGrid::activeCount() const { return std::int64_t(content_->grid->activeVoxelCount()); }
std::uint64_t PeerGrid::memoryBytes() const { return content_->grid->tree().memUsage(); }

std::uint64_t PeerGrid::locateByTree(std::vector<int3> const& places) const
{
    Tree const& tree = content_->grid->tree();
    return locate(places, [&tree] { return [&tree](openvdb::Coord const& c) { return tree.probeConstLeaf(c); }; });
}

std::uint64_t PeerGrid::locateByAccessor(std::vector<int3> const& places) const
{
    auto const& grid = *content_->grid;
    return locate(places, [&grid] {
        return [accessor = grid.getConstUnsafeAccessor()](openvdb::Coord const& c) mutable { return accessor.probeConstLeaf(c); };
    });
}

void PeerGrid::append(std::vector<int3> const& places)
{
    auto accessor = content_->grid->getAccessor();
    for (int3 const& p : places) accessor.setValue(openvdb::Coord(p.x, p.y, p.z), 1.0f);
}

std::int64_t PeerGrid::leafValues() const { return std::int64_t(content_->grid->tree().leafCount()) * Tree::LeafNodeType::SIZE; }

std::uint64_t PeerGrid::leafPass()
{
    Tree& tree = content_->grid->tree();
    if (!content_->second) content_->second = std::make_shared<Tree>(tree);
    std::vector<Tree::LeafNodeType*> from, to;
    tree.getNodes(from);
    content_->second->getNodes(to);
    tbb::parallel_for(tbb::blocked_range<std::size_t>(0, from.size()), [&](tbb::blocked_range<std::size_t> const& part) {
        for (std::size_t n = part.begin(); n < part.end(); ++n) {
            float const* a = from[n]->buffer().data();
            float* b = to[n]->buffer().data();
            for (int v = 0; v < int(Tree::LeafNodeType::SIZE); ++v) b[v] = a[v] * 0.99f + 0.01f;
        }
    });
    return std::uint64_t(to.empty() ? 0 : to[0]->buffer().data()[0] * 1000.0f);
}

float PeerGrid::voxelSize() const { return float(content_->grid->voxelSize()[0]); }

std::vector<float> PeerGrid::values(std::vector<int3> const& places) const
{
    auto accessor = content_->grid->getConstUnsafeAccessor();
    std::vector<float> result;
    result.reserve(places.size());
    for (int3 const& p : places) result.push_back(accessor.getValue(openvdb::Coord(p.x, p.y, p.z)));
    return result;
}

std::vector<char> PeerGrid::holdCubes(std::vector<int3> const& places) const
{
    auto accessor = content_->grid->getConstUnsafeAccessor();
    std::vector<char> result;
    result.reserve(places.size());
    for (int3 const& p : places) {
        bool all = true;
        for (int c = 0; c < 8 && all; ++c) all = accessor.isValueOn(openvdb::Coord(p.x + (c & 1), p.y + (c >> 1 & 1), p.z + (c >> 2)));
        result.push_back(all);
    }
    return result;
}

double PeerGrid::sampleByAccessor(std::vector<float3> const& positions) const
{
    auto const& grid = *content_->grid;
    return sumOver(positions, [&grid] {
        return [accessor = grid.getConstUnsafeAccessor()](openvdb::Vec3R const& p) mutable {
            return openvdb::tools::BoxSampler::sample(accessor, p);
        };
    });
}

double PeerGrid::sampleQuadratic(std::vector<float3> const& positions) const
{
    auto const& grid = *content_->grid;
    return sumOver(positions, [&grid] {
        return [accessor = grid.getConstUnsafeAccessor()](openvdb::Vec3R const& p) mutable {
            return openvdb::tools::QuadraticSampler::sample(accessor, p);
        };
    });
}

double PeerGrid::sampleByStencil(std::vector<float3> const& positions) const
{
    auto const& grid = *content_->grid;
    return sumOver(positions, [&grid] {
        return [stencil = openvdb::math::BoxStencil<openvdb::FloatGrid, /*IsSafe*/ false>(grid)](openvdb::Vec3R const& p) mutable {
            stencil.moveTo(p);
            return stencil.interpolation(p);
        };
    });
}

double PeerGrid::gradientByStencil(std::vector<float3> const& positions) const
{
    auto const& grid = *content_->grid;
    return sumOver(positions, [&grid] {
        return [stencil = openvdb::math::BoxStencil<openvdb::FloatGrid, /*IsSafe*/ false>(grid)](openvdb::Vec3R const& p) mutable {
            stencil.moveTo(p);
            const auto g = stencil.gradient(p);
            return stencil.interpolation(p) + g[0] + g[1] + g[2];
        };
    });
}

std::uint64_t peerBuildSphere(float radius)
{
    const auto grid = openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(radius, openvdb::Vec3f(0), 1.0f, 3.0f);
    return grid->activeVoxelCount();
}

}  // namespace bench
