#include "TilegridOps/nodes/grading.h"
#include "TilegridOps/substrate/grading.h"
#include "support/clusters.h"
#include "support/jobs.h"
#include "support/output.h"
#include "support/volumes.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using namespace Ostara::Geometry;
using Geometry::Volume::grade_volume;
using Geometry::Volume::validate_volume;
using OST::int64;

template <class Tr> using Floats = Channel<Tr, float, Tr::width, 0>;
template <class Tr> using Labels = Channel<Tr, int, Tr::width, 0>;

float fieldAt(Place const& p) { return static_cast<float>(p[0] / 1024 - p[1] / 512 + 3); }

/// A volume that is not graded, with a linear property, labels, and one property that fills nothing; and its tiles.
template <class Tr> struct Sample {
    TileSet<Tr> set;
    HostPtr volume;

    Sample()
    {
        auto native = nativeVolume<Tr>([this](Tree<Tr>& tree) {
            Random random(31);
            addClusters(random, tree, set, 6);
        });
        addChannel<Floats<Tr>>(*native, "linear", 0, [](TileKey const& key, int e) {
            const int3 ijk = cubeIndex(Tr::width, e);
            const std::int64_t w = TileSet<Tr>::voxelWidth(key.depth);
            return fieldAt({key.low[0] + w * ijk.x, key.low[1] + w * ijk.y, key.low[2] + w * ijk.z});
        });
        addChannel<Labels<Tr>>(*native, "labels", -7, [](TileKey const& key, int e) { return key.depth * 1000 + e; });
        auto labels = native->template extractComponent<Labels<Tr>>("labels");
        labels->setDataElementInitializerType(kInitializeNone);
        native->putComponent(std::move(labels));
        native->attributes()["author"] = Corvid::Any(17);
        volume = hostVolume(std::move(native));
    }
};

template <class Tr> class GradeVolume : public ::testing::Test {};
TYPED_TEST_SUITE(GradeVolume, Structures, StructureNames);

TYPED_TEST(GradeVolume, adds_the_tiles_of_the_least_graded_set_and_every_component_follows)
{
    Sample<TypeParam> sample;
    Messages messages;
    HostPtr volume = std::move(sample.volume);
    grade_volume(volume, messages.services());
    EXPECT_EQ(messages.list(), Messages::List());
    const auto expected = gradedClosure(sample.set, 0, TypeParam::maxDepth);
    ASSERT_GT(expected.tiles().size(), sample.set.tiles().size());
    auto const& native = *volume->native();
    const auto tree = treeOf<TypeParam>(native);
    EXPECT_EQ(differences(*tree, expected), "");
    EXPECT_TRUE(CoreGL::TileTree3D::isGraded(*tree, 0, TypeParam::maxDepth));
    const auto topology = native.template component<VoxelTopology<TypeParam>>(sVoxelComp);
    const auto linear = native.template component<Floats<TypeParam>>("linear");
    const auto labels = native.template component<Labels<TypeParam>>("labels");
    ASSERT_TRUE(topology && linear && labels);
    for (int d = 0; d <= TypeParam::maxDepth; ++d) {
        EXPECT_EQ(topology->tileCount(d), tree->tileCount(d));
        EXPECT_EQ(linear->tileCount(d), tree->tileCount(d));
        for (int64 n = 0; n < tree->tileCount(d); ++n) {
            const bool old = sample.set.has(keyOf(tree->tile(n, d)));
            for (int e = 0; e < TypeParam::voxelCount; ++e) {
                EXPECT_EQ(labels->tileData(n, d)(e), old ? d * 1000 + e : -7);
            }
        }
    }
    EXPECT_TRUE(tree->tileNeighbors()) << "neighbour tables are made last";
    ASSERT_NE(volume->template get<int>("author"), nullptr);
}

TYPED_TEST(GradeVolume, fills_new_tiles_of_a_linear_property_with_the_linear_field)
{
    // A block of tiles two levels above the finest, and one finest tile at the low corner of its middle.
    using Set = TileSet<TypeParam>;
    constexpr int D = TypeParam::maxDepth;
    Set set;
    auto native = nativeVolume<TypeParam>([&](Tree<TypeParam>& tree) {
        const int reach = static_cast<int>(3 * Set::tileWidth(D - 2));
        const int3 corner = toInt3(Set::keyAt({0, 0, 0}, D - 2).low);
        tree.tileAccessor().addTiles(int3(-reach), int3(reach), D - 2);
        tree.tileAccessor().addTile(corner.x, corner.y, corner.z, D);
        for (auto const& level : orderOf(tree))
            for (TileKey const& key : level) set.add(key.low, key.depth);
    });
    const auto field = [](TileKey const& key, int e) {
        const int3 ijk = cubeIndex(TypeParam::width, e);
        const double w = double(Set::voxelWidth(key.depth));
        return static_cast<float>(2 + (double(key.low[0]) + w * ijk.x) - 3 * (double(key.low[1]) + w * ijk.y) + 5 * (double(key.low[2]) + w * ijk.z));
    };
    addChannel<Floats<TypeParam>>(*native, "linear", 0, field);
    HostPtr volume = hostVolume(std::move(native));
    grade_volume(volume, Messages().services());
    const auto tree = treeOf<TypeParam>(*volume->native());
    const auto linear = volume->native()->template component<Floats<TypeParam>>("linear");
    int added = 0;
    for (int64 n = 0; n < tree->tileCount(D - 1); ++n) {
        const TileKey key = keyOf(tree->tile(n, D - 1));
        if (set.has(key)) continue;
        ++added;
        // Four ulp of the largest value in the block: the samples are rounded, and so are three steps.
        const double largest = 2 + 9.0 * 4 * double(Set::tileWidth(D - 2));
        for (int e = 0; e < TypeParam::voxelCount; ++e)
            EXPECT_NEAR(linear->tileData(n, D - 1)(e), field(key, e), 4 * largest * std::numeric_limits<float>::epsilon());
    }
    EXPECT_GT(added, 0);
}

TYPED_TEST(GradeVolume, twice_changes_nothing)
{
    Sample<TypeParam> sample;
    HostPtr volume = std::move(sample.volume);
    grade_volume(volume, Messages().services());
    const auto order = orderOf(*treeOf<TypeParam>(*volume->native()));
    auto const* tree = treeOf<TypeParam>(*volume->native()).get();
    grade_volume(volume, Messages().services());
    EXPECT_TRUE(orderOf(*treeOf<TypeParam>(*volume->native())) == order);
    EXPECT_EQ(treeOf<TypeParam>(*volume->native()).get(), tree) << "nothing is copied";
}

TYPED_TEST(GradeVolume, gives_the_same_bytes_on_1_2_and_8_threads)
{
    std::vector<float> first;
    for (int threads : kThreadCounts) {
        Sample<TypeParam> sample;
        HostPtr volume = std::move(sample.volume);
        parallel::runJob(nullptr, threads, [&] { grade_volume(volume, Messages().services()); });
        const auto linear = volume->native()->template component<Floats<TypeParam>>("linear");
        std::vector<float> values;
        for (int64 n = 0; n < linear->tileCount(-1); ++n)
            values.insert(values.end(), linear->tileData(n).begin(), linear->tileData(n).end());
        if (first.empty()) first = values;
        EXPECT_EQ(values, first) << threads << " threads";
    }
}

TYPED_TEST(GradeVolume, without_a_topology_leaves_the_tree_alone)
{
    Sample<TypeParam> sample;
    HostPtr volume = std::move(sample.volume);
    auto native = move_object_to_ost_volume(*Corvid::toMutable(volume));
    Corvid::Ptr<OST::Component> topology;
    native->removeComponent(sVoxelComp, topology);
    volume = hostVolume(std::move(native));
    grade_volume(volume, Messages().services());
    ASSERT_TRUE(volume && volume->native());
    EXPECT_EQ(differences(*treeOf<TypeParam>(*volume->native()), sample.set), "");
}

TYPED_TEST(GradeVolume, of_an_empty_volume_gives_an_empty_volume)
{
    HostPtr volume = hostVolume(nativeVolume<TypeParam>([](Tree<TypeParam>&) {}));
    Messages messages;
    grade_volume(volume, messages.services());
    ASSERT_TRUE(volume && volume->native());
    EXPECT_TRUE(treeOf<TypeParam>(*volume->native())->empty());
    EXPECT_EQ(messages.list(), Messages::List());
}

TEST(GradeVolumeNode, of_a_null_reference_says_that_it_is_no_volume)
{
    HostPtr volume;
    Messages messages;
    grade_volume(volume, messages.services());
    EXPECT_FALSE(volume);
    EXPECT_EQ(messages.list(), (Messages::List{{Severity::kError, "Input 'volume' is not a volume."}}));
}

TEST(ValidateVolume, lets_a_volume_through_uncopied_if_nobody_else_holds_it)
{
    for (auto const& prototype : {getVolumePrototype(), getLevelSetPrototype()})
        for (bool shared : {false, true}) {
            HostPtr input = Corvid::makeMutable<Host>(prototype), mine, output;
            Host const* address = input.get();
            if (shared) mine = input;
            Messages messages;
            validate_volume(std::move(input), output, messages.services());
            ASSERT_TRUE(output);
            EXPECT_TRUE(Host::isA(*output, *getVolumePrototype()));
            EXPECT_EQ(output.get() == address, !shared);
            EXPECT_EQ(output.useCount(), 1);
            EXPECT_EQ(messages.list(), Messages::List());
        }
}

TYPED_TEST(GradeVolume, is_not_needed_to_pass_validation)
{
    Sample<TypeParam> sample;
    Messages messages;
    HostPtr output;
    validate_volume(std::move(sample.volume), output, messages.services());
    ASSERT_TRUE(output && output->native());
    EXPECT_EQ(differences(*treeOf<TypeParam>(*output->native()), sample.set), "");
}

TEST(ValidateVolume, replaces_a_point_cloud_and_anything_else_by_an_empty_object_without_a_word)
{
    const CapturedStream out, errors(std::cerr);
    for (HostPtr const& wrong : {HostPtr(Corvid::makeMutable<Host>(getPointCloudPrototype())), HostPtr(Ostara::createObject()), HostPtr()}) {
        Messages messages;
        HostPtr output = Corvid::makeMutable<Host>(getVolumePrototype());
        validate_volume(wrong, output, messages.services());
        EXPECT_TRUE(isEmptyObject(output));
        EXPECT_NE(output.get(), wrong.get());
        EXPECT_EQ(messages.list(), Messages::List());
        EXPECT_TRUE(messages.progress().empty());
    }
    EXPECT_EQ(out.text() + errors.text(), "");
}

TEST(ValidateVolume, gives_an_empty_object_when_cancelled)
{
    for (bool inside : {true, false}) {
        Job job;
        job.cancel();
        Messages messages(&job);
        const Terminations terminations;
        HostPtr output;
        const auto run = [&] { validate_volume(Corvid::makeMutable<Host>(getVolumePrototype()), output, messages.services()); };
        if (inside)
            parallel::runJob(&job, 2, run);
        else
            run();
        EXPECT_TRUE(isEmptyObject(output));
        EXPECT_TRUE(terminations.names().empty());
    }
}

}  // namespace
}  // namespace tilegrid::test
