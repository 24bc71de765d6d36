#include "TilegridOps/nodes/construction.h"
#include "TilegridOps/nodes/query.h"
#include "support/jobs.h"
#include "support/volumes.h"

#include <limits>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using namespace Geometry::Volume;
using OST::int64;
using Ostara::Geometry::getVolumePrototype;

struct TileInfo {
    Corvid::Ptr<Corvid::Array<int>> depths, widths;
    Corvid::Ptr<Corvid::Array<int3>> positions;
    Corvid::Ptr<Corvid::Array<bool>> leaves;
    SubdivisionStructure structure{};
    int maxDepth = 0, tileWidth = 0;
    int3 low, high;
};

TileInfo tileInfo(Host const& volume, Corvid::RuntimeServices const& services)
{
    TileInfo info;
    get_volume_tile_info(volume, info.depths, info.positions, info.widths, info.leaves, info.structure, info.maxDepth,
                         info.tileWidth, info.low, info.high, services);
    return info;
}

template <class Tr> class Query : public ::testing::Test {
protected:
    void make(std::uint64_t seed, float voxelSize)
    {
        host_ = hostVolume(nativeVolume<Tr>(
            [&](Tree<Tr>& tree) {
                Random random(seed);
                addRandomTiles(random, tree, set_, 60);
                growAll(tree, SphereBand<Tr>(Tr::maxDepth, 3));
            },
            voxelSize));
        tree_ = treeOf<Tr>(*host_->native());
        for (int64 n = 0; n < tree_->tileCount(-1); ++n)
            set_.add(toPlace(tree_->tile(n).tijk()), tree_->tile(n).depth());
        ASSERT_EQ(differences(*tree_, set_), "");
    }
    HostPtr host_;
    Corvid::Ptr<Tree<Tr>> tree_;
    TileSet<Tr> set_;
};
TYPED_TEST_SUITE(Query, Structures, StructureNames);

TYPED_TEST(Query, of_the_voxel_size_is_that_of_the_finest_voxel)
{
    this->make(1, 0.0625f);
    float size = -1;
    get_voxel_size(*this->host_, size, Messages().services());
    EXPECT_EQ(size, 0.0625f);
}

TYPED_TEST(Query, of_the_voxel_count_counts_every_tile_in_full)
{
    this->make(2, 1.0f);
    int64 count = -1;
    get_voxel_count(*this->host_, count, Messages().services());
    EXPECT_EQ(count, int64(this->set_.tiles().size()) * TypeParam::voxelCount);
}

TYPED_TEST(Query, of_the_tiles_lists_them_by_depth_then_index_with_a_block_of_leaf_flags_each)
{
    using Set = TileSet<TypeParam>;
    constexpr int W = TypeParam::width, B = TypeParam::branching;
    for (int threads : kThreadCounts) {
        this->make(3, 1.0f);
        Messages messages;
        TileInfo info;
        parallel::runJob(nullptr, threads, [&] { info = tileInfo(*this->host_, messages.services()); });
        EXPECT_TRUE(messages.list().empty());
        EXPECT_EQ(info.structure, B == 2 ? SubdivisionStructure::kBinary : SubdivisionStructure::kQuinary);
        EXPECT_EQ(info.maxDepth, B == 2 ? 28 : 12);
        EXPECT_EQ(info.tileWidth, W);
        EXPECT_EQ(info.low, int3(B == 2 ? -536870912 : -610351562));
        EXPECT_EQ(info.high, int3(B == 2 ? 536870911 : 610351562));
        const std::size_t tiles = this->set_.tiles().size();
        ASSERT_EQ(info.depths->size(), tiles);
        ASSERT_EQ(info.positions->size(), tiles);
        ASSERT_EQ(info.widths->size(), tiles);
        ASSERT_EQ(info.leaves->size(), tiles * TypeParam::voxelCount);
        std::size_t id = 0;
        for (int d = 0; d < TypeParam::levels; ++d)
            for (int64 n = 0; n < this->tree_->tileCount(d); ++n, ++id) {
                const TileKey key = keyOf(this->tree_->tile(n, d));
                ASSERT_EQ((*info.depths)[id], d);
                ASSERT_EQ(toPlace((*info.positions)[id]), key.low);
                ASSERT_EQ((*info.widths)[id], Set::voxelWidth(d));
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i) {
                            const int cell = i * B / W + B * (j * B / W + B * (k * B / W));
                            const bool leaf = d == TypeParam::maxDepth || !this->set_.has(Set::childOf(key, cell));
                            ASSERT_EQ((*info.leaves)[id * TypeParam::voxelCount + std::size_t(i + W * j + W * W * k)],
                                      leaf)
                                << key << ", voxel " << int3(i, j, k);
                        }
            }
    }
}

TYPED_TEST(Query, of_an_empty_volume_has_no_tiles_and_no_message)
{
    const HostPtr empty = hostVolume(nativeVolume<TypeParam>([](Tree<TypeParam>&) {}, 3.0f));
    Messages messages;
    const TileInfo info = tileInfo(*empty, messages.services());
    EXPECT_TRUE(messages.list().empty());
    EXPECT_EQ(info.depths->size(), 0u);
    EXPECT_EQ(info.leaves->size(), 0u);
    EXPECT_EQ(info.maxDepth, TypeParam::maxDepth);
    int64 count = -1;
    get_voxel_count(*empty, count, messages.services());
    EXPECT_EQ(count, 0);
    float3 low(1, 1, 1), high(2, 2, 2);
    volume_bounds(*empty, low, high, messages.services());
    EXPECT_EQ(low, float3(0, 0, 0));
    EXPECT_EQ(high, float3(0, 0, 0));
}

TYPED_TEST(Query, of_the_tiles_needs_the_topology_too)
{
    this->make(4, 1.0f);
    auto host = Corvid::makeMutable<Host>(*this->host_);
    auto native = Ostara::Geometry::move_object_to_ost_volume(*host);
    Corvid::Ptr<OST::Component> removed;
    native->removeComponent(sVoxelComp, removed);
    const HostPtr without = hostVolume(std::move(native));
    Messages messages;
    const TileInfo info = tileInfo(*without, messages.services());
    EXPECT_EQ(messages.list(), (Messages::List{{Severity::kError, "Input 'volume' is not a volume."}}));
    EXPECT_EQ(info.depths->size(), 0u);
    EXPECT_EQ(info.low, int3(0x1fffffff));
}

TYPED_TEST(Query, of_the_bounds_without_a_known_property_gives_the_tiles_of_the_deepest_depth)
{
    const float voxelSize = 0.5f;
    const HostPtr host = hostVolume(nativeVolume<TypeParam>(
        [](Tree<TypeParam>& tree) {
            tree.tileAccessor().addTiles({-7, 3, 11}, {20, 5, 12}, TypeParam::maxDepth);
        },
        voxelSize));
    using Set = TileSet<TypeParam>;
    const TileKey first = Set::keyAt({-7, 3, 11}, TypeParam::maxDepth),
                  last = Set::keyAt({20, 5, 12}, TypeParam::maxDepth);
    float3 low, high;
    volume_bounds(*host, low, high, Messages().services());
    for (int a = 0; a < 3; ++a) {
        EXPECT_EQ(low[a], voxelSize * float(first.low[a]));
        EXPECT_EQ(high[a], voxelSize * float(last.low[a] + TypeParam::width));
    }
}

TYPED_TEST(Query, of_the_bounds_of_a_level_set_is_the_box_of_its_inside)
{
    // A sphere, lengths in finest voxels, distances exact at every voxel corner. Where an end lies on a lattice line the distance is
    // linear along the crossed edge and what is left is float rounding; elsewhere the ends lie between the lines.
    const double radius = 11.3;
    const float voxelSize = 0.25f;
    for (auto [centre, tolerance] : {std::pair(double3(), 1e-5 / voxelSize), {double3(0.31, -0.17, 0.23), 0.02}}) {
        auto volume = nativeVolume<TypeParam>(
            [](Tree<TypeParam>& tree) {
                tree.tileAccessor().addTiles({-20, -20, -20}, {20, 20, 20}, TypeParam::maxDepth);
            },
            voxelSize);
        using C = Channel<TypeParam, float, TypeParam::width, 0>;
        addChannel<C>(*volume, Ostara::Geometry::sVoxelSignedDistance, 3.0f * voxelSize, [&, at = centre](TileKey const& key, int e) {
            const int3 v = cubeIndex(TypeParam::width, e);
            double squared = 0;
            for (int a = 0; a < 3; ++a) {
                const double x = double(key.low[a] + v[a] * TileSet<TypeParam>::voxelWidth(key.depth)) - at[a];
                squared += x * x;
            }
            return static_cast<float>(voxelSize * (std::sqrt(squared) - radius));
        });
        float3 low, high;
        volume_bounds(*hostVolume(std::move(volume)), low, high, Messages().services());
        for (int a = 0; a < 3; ++a) {
            EXPECT_NEAR(low[a] / voxelSize, centre[a] - radius, tolerance);
            EXPECT_NEAR(high[a] / voxelSize, centre[a] + radius, tolerance);
        }
    }
}

class Construction : public ::testing::Test {
protected:
    Messages messages_;
    HostPtr volume_ = Corvid::makeMutable<Host>(getVolumePrototype());
};

TEST_F(Construction, gives_an_empty_volume_of_the_structure_with_samples_at_corners)
{
    const auto check = [&]<class Tr>(AutoSubdivisionStructure structure) {
        create_empty_volume(0.125f, structure, volume_, messages_.services());
        ASSERT_TRUE(volume_ && volume_->native());
        EXPECT_TRUE(Host::isA(*volume_, *getVolumePrototype()));
        EXPECT_FALSE(Host::isA(*volume_, *Ostara::Geometry::getLevelSetPrototype()));
        const auto tree = treeOf<Tr>(*volume_->native());
        const auto topology = volume_->native()->component<VoxelTopology<Tr>>(sVoxelComp);
        ASSERT_TRUE(tree && topology);
        EXPECT_TRUE(tree->empty());
        EXPECT_EQ(tree->voxelSize(), 0.125f);
        EXPECT_EQ(topology->offsetType(), kCorner);
        EXPECT_EQ(volume_->native()->componentRange().size(), 2u);
    };
    check.operator()<QuinaryTraits>(AutoSubdivisionStructure::kAutomatic);
    check.operator()<BinaryTraits>(AutoSubdivisionStructure::kBinary);
    check.operator()<QuinaryTraits>(AutoSubdivisionStructure::kQuinary);
    EXPECT_TRUE(messages_.list().empty());
}

TEST_F(Construction, refuses_a_detail_size_that_counts_as_zero)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (float size : {0.0f, -0.0f, -1.0f, 1.1920929e-7f, 1e-30f, nan, -std::numeric_limits<float>::infinity()}) {
        Messages messages;
        HostPtr volume;
        create_empty_volume(size, AutoSubdivisionStructure::kBinary, volume, messages.services());
        EXPECT_TRUE(isEmptyObject(volume)) << size;
        EXPECT_EQ(messages.list(), (Messages::List{{Severity::kError, "Input 'detail_size' must be non-zero."}}))
            << size;
    }
    create_empty_volume(1.2e-7f, AutoSubdivisionStructure::kBinary, volume_, messages_.services());
    EXPECT_TRUE(volume_->native());
}

TEST_F(Construction, leaves_the_output_alone_for_an_unknown_structure)
{
    for (int value : {-1, 3, 100}) {
        const HostPtr before = volume_;
        create_empty_volume(1.0f, AutoSubdivisionStructure(value), volume_, messages_.services());
        EXPECT_TRUE(volume_ == before);
    }
    EXPECT_TRUE(messages_.list().empty());
}

TEST_F(Construction, cancelled_gives_an_empty_object_before_it_looks_at_the_size)
{
    for (float size : {1.0f, 0.0f}) {
        Job job;
        job.cancel();
        Messages messages(&job);
        HostPtr volume = volume_;
        parallel::runJob(&job, 1, [&] {
            create_empty_volume(size, AutoSubdivisionStructure::kBinary, volume, messages.services());
        });
        EXPECT_TRUE(isEmptyObject(volume));
        EXPECT_TRUE(messages.list().empty());
    }
}

TEST_F(Construction, lets_an_exception_of_the_messages_pass)
{
    const Corvid::RuntimeServices services(nullptr,
                                           [](Severity, Corvid::StringView) { throw std::logic_error("mine"); });
    EXPECT_THROW(create_empty_volume(0.0f, AutoSubdivisionStructure::kBinary, volume_, services), std::logic_error);
}

TEST_F(Construction, stores_a_resolution_field_as_it_is)
{
    ResolutionField field;
    setResolutionField(float3(1, 2, 3), float3(4, 5, 6), -7, field);
    EXPECT_EQ(field.first, float3(1, 2, 3));
    EXPECT_EQ(field.second, float3(4, 5, 6));
    EXPECT_EQ(field.resolution, -7);
}

}  // namespace
}  // namespace tilegrid::test
