#include "TilegridOps/substrate/dofs.h"
#include "io/attributes.h"
#include "io/check.h"
#include "io/error.h"
#include "io/level_set_from_mesh.h"
#include "io/mesh_properties.h"
#include "io/surface.h"
#include "io/vdb.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/meshes.h"
#include "support/structures.h"

#include <algorithm>
#include <cmath>
#include <memory>

namespace tilegrid::test {
namespace {

using io::Attribute;
using io::InputError;
using io::TriangleMesh;
using Ostara::Math::double3;
using Ostara::Math::float3;
using Ostara::Math::int3;

const double3 kLow(-1.0, -0.75, -0.5), kHigh(1.0, 0.75, 0.5);
/// heat = kSlope * p + kHeat; wind = p.
const double3 kSlope(1.0, -2.0, 0.5);
constexpr double kHeat = 3.0;
/// Of all values that are interpolated: |slope| * |corner| and the constant, at most.
constexpr double kLargest = 7.0;
/// Three weights of a triangle, then eight of a cell, each with a rounding of its product and its sum, and the place's own rounding.
constexpr double kRounding = 32.0 * 0x1p-24 * kLargest;

TriangleMesh warmBox()
{
    TriangleMesh box = boxMesh(float3(kLow), float3(kHigh));
    box.attributes = {{"heat", 1, {}}, {"wind", 3, {}}};
    for (float3 const& v : box.vertices) {
        box.attributes[0].values.push_back(static_cast<float>(dot(kSlope, double3(v)) + kHeat));
        box.attributes[1].values.insert(box.attributes[1].values.end(), {v.x, v.y, v.z});
    }
    return box;
}

template <class Tr> Corvid::Ptr<Ostara::Object> voxelized(TriangleMesh const& mesh, float voxel, Corvid::RuntimeServices const& services = {})
{
    io::LevelSetOptions options;
    options.voxelSize = voxel;
    options.structure = structureOf<Tr>();
    return io::levelSetFromMesh(mesh, options, services);
}

/// Far away several points are the closest as far as squares of distances tell: each of two squares is off by a few roundings, together
/// by 8 * 2^-53 * distance^2, and that is the square of the way to the side that they cannot tell.
double farError(double3 const& place) { return length(kSlope) * std::sqrt(8.0 * 0x1p-53) * length(place); }

/// How far the value is from that of a closest point of the box: there are several at the same distance along its diagonals.
double heatError(double3 const& place, double heat)
{
    double3 clamped;
    bool inside = true;
    for (int axis = 0; axis < 3; ++axis) {
        clamped[axis] = std::clamp(place[axis], kLow[axis], kHigh[axis]);
        inside = inside && clamped[axis] == place[axis];
    }
    if (!inside) return std::abs(heat - dot(kSlope, clamped) - kHeat);
    double nearest = INFINITY, error = INFINITY;
    for (int axis = 0; axis < 3; ++axis) nearest = std::min({nearest, place[axis] - kLow[axis], kHigh[axis] - place[axis]});
    for (int axis = 0; axis < 3; ++axis)
        for (double side : {kLow[axis], kHigh[axis]})
            if (std::abs(side - place[axis]) <= nearest + 1e-6) {
                double3 foot = place;
                foot[axis] = side;
                error = std::min(error, std::abs(heat - dot(kSlope, foot) - kHeat));
            }
    return error;
}

/// Which voxels hang: these lie between the samples of coarser ones.
template <class Tr> auto dofsOf(OST::TileTree3D::Container<Tr> const& tree)
{
    using namespace OST::TileTree3D;
    auto dofs = std::make_unique<DofChannel<Tr>>("dofs", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth);
    dofs->updateTilesAdded(tree);
    computeDofs(tree, *dofs);
    return dofs;
}

template <class Tr> class MeshProperties : public ::testing::Test {};
TYPED_TEST_SUITE(MeshProperties, Structures, StructureNames);

TYPED_TEST(MeshProperties, hold_the_value_of_the_closest_point_at_every_voxel_of_every_depth)
{
    using Tr = TypeParam;
    const auto volume = voxelized<Tr>(warmBox(), 0.07f);
    const auto tree = treeOf<Tr>(*volume);
    const auto heat = channelOf<Tr, float>(*volume, Corvid::String("heat"));
    const auto wind = channelOf<Tr, float3>(*volume, Corvid::String("wind"));
    ASSERT_TRUE(heat && wind);
    EXPECT_EQ(heat->defaultValue(), 0.0f);
    const auto dofs = dofsOf<Tr>(*tree);
    double largest = 0.0;
    int count = 0;
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
            for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                if (dofs->tileData(n, depth)(flat) & OST::TileTree3D::kDofHanging) continue;
                auto const& tile = tree->tile(n, depth);
                const int3 ijk = OST::TileTree3D::cubeIndex(Tr::width, flat);
                const double3 place = double(tree->voxelSize()) * (double3(tile.tijk()) + double(tile.voxelDataWidth()) * double3(ijk));
                const double value = heat->tileData(n, depth)(flat);
                largest = std::max(largest, heatError(place, value) - farError(place));
                // Both were taken at one point.
                const double3 point(wind->tileData(n, depth)(flat));
                largest = std::max(largest, std::abs(value - dot(kSlope, point) - kHeat));
                ++count;
            }
    EXPECT_GT(count, 10000);
    EXPECT_LE(largest, kRounding);
}

TYPED_TEST(MeshProperties, are_consistent_in_trees_of_every_kind)
{
    using Tr = TypeParam;
    for (bool graded : {false, true}) {
        io::LevelSetOptions options;
        options.voxelSize = 0.09f;
        options.structure = structureOf<Tr>();
        options.graded = graded;
        EXPECT_TRUE(io::checkVolume(*io::levelSetFromMesh(warmBox(), options, {})).good()) << graded;
        options.finer = io::FinerBox{{0, 0, 0}, {1, 1, 1}, 1};
        EXPECT_TRUE(io::checkVolume(*io::levelSetFromMesh(warmBox(), options, {})).good()) << graded;
    }
}

TYPED_TEST(MeshProperties, that_are_affine_are_back_at_the_vertices_of_the_surface)
{
    using Tr = TypeParam;
    constexpr float kVoxel = 0.06f;
    const auto volume = voxelized<Tr>(warmBox(), kVoxel);
    TriangleMesh surface = io::extractSurface(*volume);
    io::addPropertiesAtVertices(surface, *volume);
    ASSERT_EQ(surface.attributes.size(), 2u);
    EXPECT_EQ(surface.attributes[0].name, "heat");
    EXPECT_EQ(surface.attributes[1].components, 3);
    int onFaces = 0;
    double onFace = 0.0, anywhere = 0.0;
    for (std::size_t n = 0; n < surface.vertices.size(); ++n) {
        const double3 v(surface.vertices[n]);
        double3 foot;
        int farFromEdge = 0;
        for (int axis = 0; axis < 3; ++axis) {
            foot[axis] = std::clamp(v[axis], kLow[axis], kHigh[axis]);
            farFromEdge += std::min(v[axis] - kLow[axis], kHigh[axis] - v[axis]) > 4.0 * kVoxel;
        }
        // The samples around it lie within two cells, whose closest points are on the same face: straight above, so nothing is lost.
        // The vertex itself may lie off the face by a rounding of its place.
        const double error = std::abs(surface.attributes[0].values[n] - dot(kSlope, v) - kHeat);
        if (farFromEdge == 2) onFace = std::max(onFace, error), ++onFaces;
        anywhere = std::max(anywhere, error);
    }
    EXPECT_GT(onFaces, 1000);
    EXPECT_LE(onFace, 2.0 * kRounding);
    // The closest points of the eight samples around a vertex v are within |v - sample| + |sample - its point| <= 2 sqrt(3) h of it.
    EXPECT_LE(anywhere, length(kSlope) * 2.0 * std::sqrt(3.0) * 2.0 * kVoxel);
}

TYPED_TEST(MeshProperties, keep_two_colours_apart_at_a_seam)
{
    using Tr = TypeParam;
    TriangleMesh box = boxMesh({-1, -1, -1}, {1, 1, 1});
    // Values 0 to 2 for the two triangles of the upper side, 3 to 5 for all others.
    box.attributes = {{"side", 1, {1, 1, 1, 0, 0, 0}}};
    for (int3 const& t : box.triangles) {
        const bool up = box.vertices[t.x].z > 0 && box.vertices[t.y].z > 0 && box.vertices[t.z].z > 0;
        box.attributeCorners.push_back(up ? int3(0, 1, 2) : int3(3, 4, 5));
    }
    const auto volume = voxelized<Tr>(box, 0.11f);
    const auto tree = treeOf<Tr>(*volume);
    const auto side = channelOf<Tr, float>(*volume, Corvid::String("side"));
    const auto dofs = dofsOf<Tr>(*tree);
    for (OST::int64 n = 0; n < tree->tileCount(Tr::maxDepth); ++n)
        for (int flat = 0; flat < Tr::voxelCount; ++flat) {
            const double3 place = double(tree->voxelSize()) * double3(tree->tile(n, Tr::maxDepth).tijk() + OST::TileTree3D::cubeIndex(Tr::width, flat));
            const double up = place.z, others = std::max({std::abs(place.x), std::abs(place.y), -place.z});
            if (std::abs(up - others) < 1e-4 || (std::abs(place.x) > 1 || std::abs(place.y) > 1)) continue;  // as near to both
            if (dofs->tileData(n, Tr::maxDepth)(flat) & OST::TileTree3D::kDofHanging) continue;
            EXPECT_EQ(side->tileData(n, Tr::maxDepth)(flat), up > others ? 1.0f : 0.0f) << place.x << " " << place.y << " " << place.z;
        }
}

TYPED_TEST(MeshProperties, travel_from_file_to_file)
{
    using Tr = TypeParam;
    const TestFolder folder;
    KeptMessages messages;
    TriangleMesh box = warmBox();
    // sRGB codes 200, 100, 50 everywhere.
    box.attributes.push_back({"color", 3, {}});
    for (std::size_t n = 0; n < box.vertices.size(); ++n)
        for (int code : {200, 100, 50}) box.attributes.back().values.push_back(io::linearFromSrgb(code / 255.0));
    io::writeMesh(folder.file("box.ply"), box);
    io::writeMesh(folder.file("box.glb"), box);
    for (char const* name : {"box.ply", "box.glb"}) {
        const auto volume = voxelized<Tr>(io::readMesh(folder.file(name), 0, {}), 0.1f);
        TriangleMesh surface = io::extractSurface(*volume);
        io::addPropertiesAtVertices(surface, *volume);
        io::writeMesh(folder.file("out.ply"), surface, messages.services());
        const std::string text = folder.read("out.ply");
        EXPECT_TRUE(contains(text, "property uchar red\nproperty uchar green\nproperty uchar blue\nproperty float heat\nproperty float wind_x\n")) << text.substr(0, 400);
        const TriangleMesh back = io::readMesh(folder.file("out.ply"), 0, {});
        ASSERT_EQ(back.attributes.size(), 3u);
        auto const& color = *std::find_if(back.attributes.begin(), back.attributes.end(), [](Attribute const& a) { return a.name == "color"; });
        for (std::size_t n = 0; n < color.values.size(); ++n) ASSERT_EQ(int(io::srgbByte(color.values[n])), (n % 3 == 0 ? 200 : n % 3 == 1 ? 100 : 50));
        io::writeVdb(folder.file("out.vdb"), *volume, messages.services());
        const auto volumes = io::readVdb(folder.file("out.vdb"), {}, messages.services());
        ASSERT_FALSE(volumes.empty());
    }
    EXPECT_TRUE(messages.texts().empty());
}

TYPED_TEST(MeshProperties, are_the_same_bytes_for_any_number_of_threads)
{
    using Tr = TypeParam;
    const TestFolder folder;
    std::string first;
    for (int threads : kThreadCounts) {
        std::string written;
        const auto work = [&] {
            const auto volume = voxelized<Tr>(warmBox(), 0.09f);
            TriangleMesh surface = io::extractSurface(*volume);
            io::addPropertiesAtVertices(surface, *volume);
            io::writeMesh(folder.file("a.glb"), surface);
            written = folder.read("a.glb");
        };
        pollsOf(threads, work);
        if (first.empty()) first = written;
        EXPECT_GT(first.size(), 10000u);
        EXPECT_TRUE(written == first) << threads << " threads";
    }
}

TEST(MeshPropertyNames, that_the_volume_has_already_are_left_out)
{
    KeptMessages messages;
    TriangleMesh box = warmBox();
    box.attributes[0].name = "voxel_signed_distance";
    const auto volume = voxelized<OST::TileTree3D::BinaryTraits>(box, 0.1f, messages.services());
    EXPECT_TRUE(messages.mention("attribute 'voxel_signed_distance' of the mesh is left out"));
    const auto plain = voxelized<OST::TileTree3D::BinaryTraits>(boxMesh(float3(kLow), float3(kHigh)), 0.1f);
    const auto one = channelOf<OST::TileTree3D::BinaryTraits>(*volume), other = channelOf<OST::TileTree3D::BinaryTraits>(*plain);
    const auto tree = treeOf<OST::TileTree3D::BinaryTraits>(*volume);
    for (OST::int64 n = 0; n < tree->tileCount(OST::TileTree3D::BinaryTraits::maxDepth); ++n)
        ASSERT_EQ(one->tileData(n, OST::TileTree3D::BinaryTraits::maxDepth)(0), other->tileData(n, OST::TileTree3D::BinaryTraits::maxDepth)(0));
}

TEST(MeshPropertyErrors, name_the_attribute_and_the_memory)
{
    TriangleMesh box = warmBox();
    box.attributes[0].values.pop_back();
    EXPECT_TRUE(contains(errorOf<InputError>([&] { voxelized<OST::TileTree3D::BinaryTraits>(box, 0.1f); }), "attribute 'heat' has 7 values"));
    box = warmBox();
    for (char const* name : {"a", "b", "c", "d"}) box.attributes.push_back({name, 3, box.attributes[1].values});
    io::LevelSetOptions options;
    options.voxelSize = 0.02f;
    const auto volume = io::levelSetFromMesh(box, options, {});
    // 16 numbers at every voxel. The level set alone has one, and its tiles less than another two.
    options.maxBytes = std::uint64_t(treeOf<OST::TileTree3D::BinaryTraits>(*volume)->voxelDataCount(-1)) * 16 * sizeof(float);
    EXPECT_NO_THROW(io::levelSetFromMesh(box, options, {}));
    options.maxBytes -= 1;
    EXPECT_NO_THROW(io::levelSetFromMesh(boxMesh(float3(kLow), float3(kHigh)), options, {}));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { io::levelSetFromMesh(box, options, {}); }), "the 6 attributes of the mesh would take about"));
}

TEST(SrgbCodes, all_survive_the_way_to_linear_and_back)
{
    for (int code = 0; code < 256; ++code) {
        EXPECT_EQ(int(io::srgbByte(io::linearFromSrgb(code / 255.0))), code);
        EXPECT_EQ(int(io::byteOf(float(code) / 255.0f)), code);
    }
    EXPECT_EQ(io::linearFromSrgb(0.0), 0.0f);
    EXPECT_EQ(io::linearFromSrgb(1.0), 1.0f);
    EXPECT_EQ(int(io::srgbByte(NAN)), 0);
    EXPECT_EQ(int(io::srgbByte(-1.0f)), 0);
    EXPECT_EQ(int(io::srgbByte(INFINITY)), 255);
}

}  // namespace
}  // namespace tilegrid::test
