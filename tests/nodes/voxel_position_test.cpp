#include "TilegridOps/nodes/property.h"
#include "support/volumes.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using Geometry::Volume::update_voxel_position;

template <class Tr> using Positions = Channel<Tr, float3, Tr::width, 0>;

template <class Tr> Corvid::MutablePtr<Native> randomVolume(std::uint64_t seed, float voxelSize)
{
    return nativeVolume<Tr>(
        [seed](Tree<Tr>& tree) {
            Random random(seed);
            TileSet<Tr> set;
            addRandomTiles(random, tree, set, 30);
        },
        voxelSize);
}

/// The position by the definition, one operation after the other in single precision.
template <class Tr>
std::string faults(Native const& volume, Corvid::String const& property, int offset, float voxelSize)
{
    const auto tree = treeOf<Tr>(volume);
    const auto channel = volume.component<Positions<Tr>>(property);
    if (!tree || !channel) return "no tree or no positions";
    const auto along = [voxelSize](int i, bool low, std::int64_t width, std::int64_t corner) {
        const float inVoxels = static_cast<float>(i) + (low ? 0.0f : 0.5f);
        const float inTileSpace = inVoxels * static_cast<float>(width) + static_cast<float>(corner);
        return inTileSpace * voxelSize;
    };
    std::ostringstream out;
    for (int d = std::max(0, channel->minDepth()); d <= channel->depth(); ++d)
        for (OST::int64 n = 0; n < tree->tileCount(d); ++n)
            for (int e = 0; e < Tr::voxelCount; ++e) {
                const TileKey key = keyOf(tree->tile(n, d));
                const int3 v = cubeIndex(Tr::width, e);
                const std::int64_t w = TileSet<Tr>::voxelWidth(d);
                const float3 expected(along(v.x, offset & 1, w, key.low[0]), along(v.y, offset & 2, w, key.low[1]),
                                      along(v.z, offset & 4, w, key.low[2]));
                const float3 got = channel->tileData(n, d)(e);
                if (!(got == expected)) {
                    out << key << ", voxel " << v << ": " << got << " instead of " << expected;
                    return out.str();
                }
            }
    return "";
}

template <class Tr> class VoxelPosition : public ::testing::Test {};
TYPED_TEST_SUITE(VoxelPosition, Structures, StructureNames);

TYPED_TEST(VoxelPosition, is_written_for_all_eight_offsets_at_every_voxel_of_every_tile)
{
    for (int offset = 0; offset < 8; ++offset) {
        HostPtr output;
        Messages messages;
        update_voxel_position(hostVolume(randomVolume<TypeParam>(std::uint64_t(offset), 0.013f)), "where",
                              Geometry::Volume::VoxelOffset(offset), output, messages.services());
        ASSERT_TRUE(output && output->native());
        EXPECT_EQ(faults<TypeParam>(*output->native(), "where", offset, 0.013f), "") << "offset " << offset;
        EXPECT_TRUE(messages.list().empty());
    }
}

TYPED_TEST(VoxelPosition, makes_the_property_if_it_is_absent)
{
    HostPtr output;
    update_voxel_position(hostVolume(randomVolume<TypeParam>(3, 1.0f)), "fresh", kCorner, output,
                          Messages().services());
    const auto channel = output->native()->template component<Positions<TypeParam>>("fresh");
    ASSERT_TRUE(channel);
    EXPECT_EQ(channel->minDepth(), 0);
    EXPECT_EQ(channel->depth(), TypeParam::maxDepth);
    EXPECT_EQ(channel->defaultValue(), float3(0, 0, 0));
    EXPECT_EQ(channel->dataElementInitializerType(), 2);
    EXPECT_EQ(channel->tileCount(-1), treeOf<TypeParam>(*output->native())->tileCount(-1));
}

TYPED_TEST(VoxelPosition, goes_to_the_position_property_if_none_is_named)
{
    HostPtr output;
    update_voxel_position(hostVolume(randomVolume<TypeParam>(4, 2.0f)), kEdgeY, output, Messages().services());
    EXPECT_EQ(faults<TypeParam>(*output->native(), sVoxelPosition, kEdgeY, 2.0f), "");
}

TYPED_TEST(VoxelPosition, overwrites_a_property_that_is_there_and_keeps_its_default_and_depths)
{
    auto volume = randomVolume<TypeParam>(5, 1.0f);
    addChannel<Positions<TypeParam>>(
        *volume, "where", float3(9, 9, 9), [](auto&&...) { return float3(7, 7, 7); }, 2, TypeParam::maxDepth - 1);
    HostPtr output;
    update_voxel_position(hostVolume(std::move(volume)), "where", kCenter, output, Messages().services());
    EXPECT_EQ(faults<TypeParam>(*output->native(), "where", kCenter, 1.0f), "");
    const auto channel = output->native()->template component<Positions<TypeParam>>("where");
    EXPECT_EQ(channel->defaultValue(), float3(9, 9, 9));
    EXPECT_EQ(channel->minDepth(), 2);
    EXPECT_EQ(channel->depth(), TypeParam::maxDepth - 1);
}

TYPED_TEST(VoxelPosition, takes_the_place_of_a_property_of_another_type)
{
    using Floats = Channel<TypeParam, float, TypeParam::width, 0>;
    auto volume = randomVolume<TypeParam>(6, 1.0f);
    addChannel<Floats>(*volume, "where", 1.0f, [](auto&&...) { return 2.0f; });
    HostPtr output;
    update_voxel_position(hostVolume(std::move(volume)), "where", kFaceX, output, Messages().services());
    EXPECT_EQ(faults<TypeParam>(*output->native(), "where", kFaceX, 1.0f), "");
}

TYPED_TEST(VoxelPosition, does_not_depend_on_the_offset_of_the_volume)
{
    for (VoxelOffsetType own : {kCenter, kEdgeX}) {
        auto volume = randomVolume<TypeParam>(7, 1.0f);
        auto topology = Corvid::makeMutable<VoxelTopology<TypeParam>>(sVoxelComp, own);
        topology->update(*treeOf<TypeParam>(*volume));
        volume->putComponent(std::move(topology));
        HostPtr output;
        update_voxel_position(hostVolume(std::move(volume)), "where", kFaceZ, output, Messages().services());
        EXPECT_EQ(faults<TypeParam>(*output->native(), "where", kFaceZ, 1.0f), "");
        EXPECT_EQ(output->native()->template component<VoxelTopology<TypeParam>>(sVoxelComp)->offsetType(), own);
    }
}

TYPED_TEST(VoxelPosition, of_a_volume_without_tree_or_topology_is_an_error_and_the_volume_comes_out)
{
    for (Corvid::String const& missing : {sVoxelTileTree, sVoxelComp}) {
        auto volume = randomVolume<TypeParam>(8, 1.0f);
        Corvid::Ptr<OST::Component> removed;
        volume->removeComponent(missing, removed);
        volume->attributes()["mark"] = Corvid::Any(1);
        Messages messages;
        HostPtr output;
        update_voxel_position(hostVolume(std::move(volume)), "where", kCorner, output, messages.services());
        EXPECT_EQ(messages.list(),
                  (Messages::List{{Severity::kError, "Unable to retrieve container or voxelTopology."}}));
        ASSERT_TRUE(output && output->native());
        EXPECT_NE(output->template get<int>("mark"), nullptr);
        EXPECT_EQ(output->native()->componentRange().size(), 1u) << "nothing lost, nothing made";
    }
}

}  // namespace
}  // namespace tilegrid::test
