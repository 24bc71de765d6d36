#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "support/surface_checks.h"

#include <gtest/gtest.h>

namespace tilegrid::test {
namespace {

template <class Tr> class SurfaceAccuracy : public ::testing::Test {};
TYPED_TEST_SUITE(SurfaceAccuracy, Structures, StructureNames);

/// An exact distance, in finest voxels, with the outward normal and the volume inside.
struct Shape {
    std::string name;
    std::function<double(double3 const&)> distance;
    std::function<double3(double3 const&)> normal;
    double volume;
    std::int64_t euler;
};

double lengthOf(double3 const& v) { return std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z); }

Shape sphere(double radius)
{
    return {"sphere", [radius](double3 const& p) { return lengthOf(p) - radius; },
            [](double3 const& p) { return (1 / lengthOf(p)) * p; }, 4.0 / 3.0 * M_PI * radius * radius * radius, 2};
}

/// Around the z axis.
Shape torus(double radius, double tube)
{
    const auto fromCircle = [radius](double3 const& p) {
        const double around = std::hypot(p.x, p.y), scale = (around - radius) / around;
        return double3(p.x * scale, p.y * scale, p.z);
    };
    return {"torus", [=](double3 const& p) { return lengthOf(fromCircle(p)) - tube; },
            [=](double3 const& p) { return (1 / lengthOf(fromCircle(p))) * fromCircle(p); },
            2 * M_PI * M_PI * radius * tube * tube, 0};
}

/// Children where the shape may pass near, finer than `deepest` only for x below `finerBelow`.
template <class Tr> void growAround(Tree<Tr>& tree, Shape const& shape, int deepest, double band, double finerBelow = 1e30)
{
    const auto wants = [&](auto const& tile, int3 const& cell) {
        const int3 low = tile.childTIJK(cell);
        const double w = tile.voxelWidth(), half = w / 2;
        if (tile.depth() + 1 == deepest && low.x >= finerBelow) return false;
        return std::fabs(shape.distance({low.x + half, low.y + half, low.z + half})) < band + 0.867 * w;
    };
    growAll(tree, wants, nullptr, deepest);
}

template <class Tr> SurfaceVolume<Tr> levelSetOf(Shape const& shape, int deepest, double finerBelow = 1e30, float voxelSize = 1.0f)
{
    SurfaceVolume<Tr> volume(voxelSize);
    growAround(volume.tree, shape, deepest, 3.0 * Tr::voxelDataWidth(deepest), finerBelow);
    volume.fill([&](double3 const& p, int) { return float(voxelSize * shape.distance(p)); });
    return volume;
}

double largestDistance(Surface const& mesh, Shape const& shape)
{
    double largest = 0;
    for (float3 const& v : mesh.vertices) largest = std::max(largest, std::fabs(shape.distance(double3(v))));
    return largest;
}

void expectManifold(Surface const& mesh)
{
    const EdgeCensus census = censusOf(mesh);
    EXPECT_EQ(census.open, 0);
    EXPECT_EQ(census.shared, 0);
    EXPECT_EQ(census.degenerate, 0);
}

TYPED_TEST(SurfaceAccuracy, is_second_order_on_smooth_shapes)
{
    using Tr = TypeParam;
    for (Shape const& shape : {sphere(20.3), torus(20.3, 8.1)}) {
        SCOPED_TRACE(shape.name);
        const Surface mesh = levelSetOf<Tr>(shape, Tr::maxDepth).extract();
        expectManifold(mesh);
        EXPECT_EQ(eulerNumber(mesh), shape.euler);
        // Trilinear interpolation of a distance is off by at most h^2/8 per axis times its second derivative along it: the two
        // curvatures, none above 1/8.1 here, make h^2/8 * 2/8.1 = 0.031.
        EXPECT_LE(largestDistance(mesh, shape), 0.031);
        for (std::size_t n = 0; n < mesh.vertices.size(); ++n) {
            // Slopes of the trilinear form are first order: half a voxel times the curvature on each of two axes.
            const double3 off = double3(mesh.normals[n]) - shape.normal(double3(mesh.vertices[n]));
            ASSERT_LE(lengthOf(off), 0.13);
            ASSERT_NEAR(lengthOf(double3(mesh.normals[n])), 1.0, 1e-6);
        }
        // Flat faces lie inside their arcs by at most (edge / 2)^2 / (2 R) with edges up to sqrt(3): below 0.5 % for these sizes.
        EXPECT_NEAR(volumeOf(mesh) / shape.volume, 1.0, 0.005);
    }
}

TYPED_TEST(SurfaceAccuracy, holds_across_jumps_of_depth)
{
    using Tr = TypeParam;
    const double w = Tr::voxelDataWidth(Tr::maxDepth - 1);
    const Shape shape = sphere(20.3 * w);
    const auto volume = levelSetOf<Tr>(shape, Tr::maxDepth, 4 * w);
    ASSERT_GT(volume.tree.tileCount(Tr::maxDepth), 0);
    const Surface mesh = volume.extract();
    expectManifold(mesh);
    EXPECT_EQ(eulerNumber(mesh), 2);
    // As above, in voxels of the coarser depth; beside a jump both depths meet on the coarser one's faces.
    EXPECT_LE(largestDistance(mesh, shape), w * w / 8 * 2 / (20.3 * w) + 1e-3);
    EXPECT_NEAR(volumeOf(mesh) / shape.volume, 1.0, 0.005);
}

TYPED_TEST(SurfaceAccuracy, lies_on_planes_across_jumps)
{
    using Tr = TypeParam;
    const int w = Tr::tileVoxelWidth(Tr::maxDepth - 1);
    SurfaceVolume<Tr> volume;
    auto accessor = volume.tree.tileAccessor();
    Random random(5);
    for (int n = 0; n < 60; ++n)
        accessor.addTile(int(random.between(-3 * w, 3 * w)), int(random.between(-3 * w, 3 * w)), int(random.between(-2 * w, 2 * w)),
                         Tr::maxDepth - int(random.below(3)));
    const double3 slope(0.5, -0.25, 1.0);
    const auto plane = [&](double3 const& p) { return slope.x * p.x + slope.y * p.y + slope.z * p.z - 1.3; };
    volume.fill([&](double3 const& p, int) { return float(plane(p)); });
    const Surface mesh = volume.extract();
    EXPECT_EQ(censusOf(mesh).open, 0);
    const double3 normal = (1 / lengthOf(slope)) * slope;
    int seen = 0;
    for (std::size_t n = 0; n < mesh.vertices.size(); ++n) {
        const double3 v(mesh.vertices[n]);
        if (std::max({std::fabs(v.x), std::fabs(v.y), std::fabs(v.z)}) > 6 * w) continue;
        ++seen;
        // A linear function is its own trilinear form; what is left is rounding of values up to a few thousand finest voxels.
        ASSERT_NEAR(plane(v), 0.0, 2e-3 * lengthOf(slope)) << v.x << " " << v.y << " " << v.z;
        ASSERT_LE(lengthOf(double3(mesh.normals[n]) - normal), 1e-3);
    }
    EXPECT_GT(seen, 200);
}

TYPED_TEST(SurfaceAccuracy, keeps_the_faces_of_a_box)
{
    using Tr = TypeParam;
    const double3 half(12.4, 9.7, 7.2);
    const Shape box{"box",
                    [half](double3 const& p) {
                        const double3 q(std::fabs(p.x) - half.x, std::fabs(p.y) - half.y, std::fabs(p.z) - half.z);
                        const double3 out(std::max(q.x, 0.0), std::max(q.y, 0.0), std::max(q.z, 0.0));
                        return lengthOf(out) + std::min(0.0, std::max({q.x, q.y, q.z}));
                    },
                    {}, 8 * half.x * half.y * half.z, 2};
    const Surface mesh = levelSetOf<Tr>(box, Tr::maxDepth).extract();
    expectManifold(mesh);
    EXPECT_EQ(eulerNumber(mesh), 2);
    for (float3 const& v : mesh.vertices) {
        const double3 q(half.x - std::fabs(v.x), half.y - std::fabs(v.y), half.z - std::fabs(v.z));
        const int farFromEdges = (q.x > 1.8) + (q.y > 1.8) + (q.z > 1.8);
        // Cells without an edge of the box have a linear field. A cell on an edge cuts it off by less than its diagonal.
        ASSERT_LE(std::fabs(box.distance(double3(v))), farFromEdges == 2 ? 1e-5 : 0.87);
    }
    // What is cut off the twelve edges: at most a triangle of half a cell's cross section along each.
    const double cut = 0.5 * 8 * (half.x + half.y + half.z);
    EXPECT_LE(volumeOf(mesh), box.volume + 1);
    EXPECT_GE(volumeOf(mesh), box.volume - cut);
}

TYPED_TEST(SurfaceAccuracy, has_vertices_and_normals_of_the_linear_sampler)
{
    using Tr = TypeParam;
    using namespace OST::TileTree3D;
    const float size = 0.03f;
    const Shape shape = sphere(15.2);
    const auto volume = levelSetOf<Tr>(shape, Tr::maxDepth, 1e30, size);
    const Surface mesh = volume.extract();
    const VoxelSamplerLinear<Tr, float, 1, float, float3, 0, 0, 1, 0> sampler(volume.tree, volume.topology, volume.levelSet.get());
    int compared = 0;
    for (std::size_t n = 0; n < mesh.vertices.size(); ++n) {
        float3 const& v = mesh.vertices[n];
        float3 gradient;
        const float value = sampler.sampleLinearWithGradient(v, Tr::maxDepth, kWorldSpace, gradient);
        // Four steps leave less than a thousandth of a voxel, unless the zero set lies outside the cell along the gradient.
        ASSERT_LE(std::fabs(value), 0.02f * size);
        // On a face of its cell a vertex can read the next one's gradient.
        const float3 local = (1 / size) * v;
        const auto inner = [](float x) { return std::fabs(x - std::round(x)) > 1e-3f; };
        if (!inner(local.x) || !inner(local.y) || !inner(local.z)) continue;
        ++compared;
        const double3 direction = (1 / lengthOf(double3(gradient))) * double3(gradient);
        ASSERT_LE(lengthOf(direction - double3(mesh.normals[n])), 1e-3);
    }
    EXPECT_GT(compared, 100);
}

TYPED_TEST(SurfaceAccuracy, of_samples_off_the_corners_is_second_order)
{
    using Tr = TypeParam;
    using namespace OST::TileTree3D;
    const Shape shape = sphere(20.3);
    for (int type = 0; type < 8; ++type) {
        SCOPED_TRACE("offset type " + std::to_string(type));
        SurfaceVolume<Tr> volume(1.0f, VoxelOffsetType(type));
        growAround(volume.tree, shape, Tr::maxDepth, 4.0);
        volume.fill([&](double3 const& p, int) { return float(shape.distance(p)); });
        const Surface mesh = volume.extract();
        expectManifold(mesh);
        EXPECT_EQ(eulerNumber(mesh), 2);
        // Two linear interpolations on up to three axes of curvature 1/20.3 on two: 2 * h^2/8 * 2/20.3.
        EXPECT_LE(largestDistance(mesh, shape), 2.0 / 8 * 2 / 20.3 + 1e-4);
    }
}

}  // namespace
}  // namespace tilegrid::test
