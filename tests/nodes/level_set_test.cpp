#include "TilegridOps/nodes/level_set.h"
#include "TilegridOps/nodes/query.h"
#include "TilegridOps/substrate/dofs.h"

#include "support/components.h"
#include "support/field_volumes.h"
#include "support/jobs.h"
#include "support/output.h"
#include "support/volumes.h"

#include <cmath>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using namespace Ostara::Geometry;
using namespace Geometry::Volume;

template <class Tr> using Floats = Channel<Tr, float, Tr::width, 0>;

/// The distance to a ball of radius 9 finest voxels around (0.3, 0.2, 0.1), times `factor`.
template <class Tr> Corvid::MutablePtr<Native> nativeBall(float factor, float voxelSize = 0.5f)
{
    auto native = nativeVolume<Tr>([](Tree<Tr>& tree) { tree.tileAccessor().addTiles({-14, -14, -14}, {14, 14, 14}, Tr::maxDepth); }, voxelSize);
    addChannel<Floats<Tr>>(*native, sVoxelSignedDistance, 3.0f, [factor, voxelSize](TileKey const& key, int e) {
        const int3 ijk = cubeIndex(Tr::width, e);
        const double w = double(TileSet<Tr>::voxelWidth(key.depth));
        const double distance = std::hypot(double(key.low[0]) + w * ijk.x - 0.3, double(key.low[1]) + w * ijk.y - 0.2, double(key.low[2]) + w * ijk.z - 0.1) - 9;
        return float(distance * double(voxelSize)) * factor;
    });
    return native;
}
template <class Tr> HostPtr ball(float factor) { return hostVolume(nativeBall<Tr>(factor)); }

/// The value at a finest voxel.
template <class Tr> float at(HostPtr const& volume, int i, int j, int k, Corvid::String const& name = sVoxelSignedDistance)
{
    const auto tree = treeOf<Tr>(*volume->native());
    auto const& tile = tree->tileAccessor().tileImpl(i, j, k, Tr::maxDepth);
    return volume->native()->template component<Floats<Tr>>(name)->tileData(tile.treeIndex())(i - tile.tijk().x, j - tile.tijk().y, k - tile.tijk().z);
}

template <class Tr> std::string bytesOf(HostPtr const& volume) { return test::bytesOf<Tr, float>(*volume->native(), sVoxelSignedDistance); }

template <class Tr> class LevelSetNodes : public ::testing::Test {};
TYPED_TEST_SUITE(LevelSetNodes, Structures, StructureNames);

TYPED_TEST(LevelSetNodes, rebuild_makes_distances_and_leaves_no_flags_behind)
{
    Messages messages;
    HostPtr out;
    rebuild_level_set(ball<TypeParam>(3), sVoxelSignedDistance, out, messages.services());
    EXPECT_EQ(messages.list(), Messages::List());
    ASSERT_TRUE(out && out->native());
    EXPECT_FALSE(out->native()->hasComponentFromName(sVoxelDegreeOfFreedom));
    EXPECT_TRUE(Host::isA(*out, *getLevelSetPrototype()));
    EXPECT_NEAR(at<TypeParam>(out, 12, 0, 0), 0.5 * (std::hypot(11.7, 0.2, 0.1) - 9), 0.005);
    EXPECT_NEAR(at<TypeParam>(out, 0, -4, 0), 0.5 * (std::hypot(0.3, 4.2, 0.1) - 9), 0.005);
}

TYPED_TEST(LevelSetNodes, rebuild_without_the_property_says_so_and_changes_nothing)
{
    HostPtr volume = ball<TypeParam>(3), out;
    const auto before = componentsOf(volume);
    const std::string bytes = bytesOf<TypeParam>(volume);
    EXPECT_GE(before.size(), 3u);
    Messages messages;
    rebuild_level_set(std::move(volume), "nothing", out, messages.services());
    EXPECT_EQ(messages.list(), (Messages::List{{Severity::kError, "Unable to rebuild level set."}}));
    EXPECT_EQ(componentsOf(out), before);
    EXPECT_TRUE(bytesOf<TypeParam>(out) == bytes);
}

TYPED_TEST(LevelSetNodes, rebuild_of_a_property_that_holds_no_floats_says_so_too)
{
    HostPtr out;
    auto native = nativeBall<TypeParam>(3);
    addChannel<Channel<TypeParam, double, TypeParam::width, 0>>(*native, "doubles", 0.0, [](TileKey const&, int) { return -1.0; });
    Messages messages;
    rebuild_level_set(hostVolume(std::move(native)), "doubles", out, messages.services());
    EXPECT_EQ(messages.list(), (Messages::List{{Severity::kError, "Unable to rebuild level set."}}));
    EXPECT_FALSE(out->native()->hasComponentFromName(sVoxelDegreeOfFreedom));
    EXPECT_EQ(at<TypeParam>(out, 12, 0, 0), at<TypeParam>(ball<TypeParam>(3), 12, 0, 0));
}

TYPED_TEST(LevelSetNodes, coarsen_removes_what_coarser_voxels_can_give_and_keeps_distances)
{
    const HostPtr before = ball<TypeParam>(1);
    Messages messages;
    HostPtr out;
    // Coarser voxels of width w miss the distance r from the middle by up to w^2 / (4 r): w is 1 or 2.5, r from 4.5 on.
    const float error = TypeParam::branching == 2 ? 0.05f : 0.35f;
    coarsen_voxel_property(before, sVoxelSignedDistance, error, 0, true, 2, out, messages.services());
    EXPECT_EQ(messages.list(), (Messages::List{{Severity::kInfo, "coarsen_voxel_property.begin"}, {Severity::kInfo, "coarsen_voxel_property.end"}}));
    ASSERT_TRUE(out && out->native());
    EXPECT_FALSE(out->native()->hasComponentFromName(sVoxelDegreeOfFreedom));
    EXPECT_LT(treeOf<TypeParam>(*out->native())->tileCount(TypeParam::maxDepth), treeOf<TypeParam>(*before->native())->tileCount(TypeParam::maxDepth));
    EXPECT_GT(treeOf<TypeParam>(*out->native())->tileCount(TypeParam::maxDepth), 0);
    // Next to the surface, where tiles are protected.
    EXPECT_NEAR(at<TypeParam>(out, 9, 0, 0), at<TypeParam>(before, 9, 0, 0), 0.05);
}

TYPED_TEST(LevelSetNodes, coarsen_of_another_property_ends_after_the_coarsening)
{
    auto native = nativeVolume<TypeParam>([](Tree<TypeParam>& tree) { tree.tileAccessor().addTiles({-14, -14, -14}, {14, 14, 14}, TypeParam::maxDepth); });
    // A level set that is no distance, beside a density that is the same everywhere.
    addChannel<Floats<TypeParam>>(*native, sVoxelSignedDistance, 3.0f, [](TileKey const& key, int) { return key.low[0] < 0 ? -7.0f : 7.0f; });
    addChannel<Floats<TypeParam>>(*native, "density", 1.0f, [](TileKey const&, int) { return 1.0f; });
    HostPtr out;
    coarsen_voxel_property(hostVolume(std::move(native)), "density", 0, 0, false, 0, out, Messages().services());
    ASSERT_TRUE(out && out->native());
    EXPECT_EQ(treeOf<TypeParam>(*out->native())->tileCount(TypeParam::maxDepth), 0);
    const auto values = out->native()->template component<Floats<TypeParam>>(sVoxelSignedDistance)->tileData(0, 0);
    for (int n = 0; n < TypeParam::voxelCount; ++n) EXPECT_EQ(std::abs(values(n)), 7.0f) << "distances are not made anew";

    constexpr char kStage[] = "Volume::coarsen_voxel_property.redistance";
    const VerboseLevel telling(2);
    const CapturedStream output;
    coarsen_voxel_property(out, "density", 0, 0, false, 0, out, Messages().services());
    EXPECT_EQ(output.text().find(kStage), std::string::npos);
    coarsen_voxel_property(ball<TypeParam>(1), sVoxelSignedDistance, 0, 0, false, 0, out, Messages().services());
    EXPECT_NE(output.text().find(kStage), std::string::npos);
}

TYPED_TEST(LevelSetNodes, coarsen_gives_an_empty_object_for_what_is_no_volume_and_for_a_cancelled_job)
{
    Messages messages;
    HostPtr out;
    coarsen_voxel_property(Ostara::createObject(), "density", 0, 0, false, 0, out, messages.services());
    EXPECT_EQ(messages.list(), (Messages::List{{Severity::kError, "Input 'volume' is not a volume."}}));
    ASSERT_TRUE(out);
    EXPECT_FALSE(out->native());
    Job job;
    job.cancelAtPoll(1);
    parallel::runJob(&job, 2, [&] { coarsen_voxel_property(ball<TypeParam>(1), sVoxelSignedDistance, 1, 0, false, 0, out, Messages().services()); });
    ASSERT_TRUE(out);
    EXPECT_FALSE(out->native());
}

/// A ball with flags, all 7, that belong to the volume: no node makes such.
template <class Tr> HostPtr flaggedBall()
{
    auto native = nativeBall<Tr>(1);
    addChannel<DofChannel<Tr>>(*native, sVoxelDegreeOfFreedom, short(0), [](TileKey const&, int) { return short(7); });
    return hostVolume(std::move(native));
}

TYPED_TEST(LevelSetNodes, flags_that_a_node_makes_never_survive_it)
{
    const std::pair<char const*, std::function<void(HostPtr&, Corvid::RuntimeServices const&)>> nodes[] = {
        {"rebuild_level_set", [](HostPtr& v, Corvid::RuntimeServices const& s) { rebuild_level_set(std::move(v), sVoxelSignedDistance, v, s); }},
        {"coarsen_voxel_property",
         [](HostPtr& v, Corvid::RuntimeServices const& s) { coarsen_voxel_property(std::move(v), sVoxelSignedDistance, 0.05f, 0, true, 2, v, s); }},
        {"resize_level_set", [](HostPtr& v, Corvid::RuntimeServices const& s) { resize_level_set(std::move(v), 2, v, s); }}};
    for (auto const& [name, run] : nodes) {
        SCOPED_TRACE(name);
        HostPtr plain = ball<TypeParam>(1.2f), flagged = flaggedBall<TypeParam>();
        run(plain, Messages().services());
        run(flagged, Messages().services());
        ASSERT_TRUE(plain && plain->native() && flagged && flagged->native());
        EXPECT_FALSE(plain->native()->hasComponentFromName(sVoxelDegreeOfFreedom));
        EXPECT_TRUE(flagged->native()->hasComponentFromName(sVoxelDegreeOfFreedom)) << "what the volume had stays";
    }
}

TYPED_TEST(LevelSetNodes, rebuild_reads_the_flags_that_the_volume_has)
{
    // Flags that call every voxel hanging: everything is interpolated from the depth above, and the root takes the default.
    auto native = nativeBall<TypeParam>(1);
    addChannel<DofChannel<TypeParam>>(*native, sVoxelDegreeOfFreedom, short(0), [](TileKey const&, int) { return short(kDofHanging); });
    HostPtr out;
    rebuild_level_set(hostVolume(std::move(native)), sVoxelSignedDistance, out, Messages().services());
    const auto root = out->native()->template component<Floats<TypeParam>>(sVoxelSignedDistance)->tileData(0, 0);
    EXPECT_NE(root(0), 3.0f) << "depth 0 has nothing above and stays";
    const auto flags = out->native()->template component<DofChannel<TypeParam>>(sVoxelDegreeOfFreedom);
    for (short flag : flags->tileData(0, TypeParam::maxDepth)) EXPECT_EQ(flag, short(kDofHanging)) << "not made again";
}

TYPED_TEST(LevelSetNodes, resize_with_a_negative_bandwidth_warns_once_and_runs_with_none)
{
    Messages messages;
    HostPtr out, none;
    const VerboseLevel telling(1);
    const CapturedStream output;
    resize_level_set(ball<TypeParam>(1), -1, out, messages.services());
    EXPECT_EQ(output.lines(), (std::vector<std::string>{"resize_level_set.begin", "bandwidth = 0", "resize_level_set.end"}));
    EXPECT_EQ(messages.list(), (Messages::List{{Severity::kWarning, "Bandwidth clamped to zero."}}));
    resize_level_set(ball<TypeParam>(1), 0, none, Messages().services());
    EXPECT_TRUE(orderOf(*treeOf<TypeParam>(*out->native())) == orderOf(*treeOf<TypeParam>(*none->native())));
    EXPECT_TRUE(bytesOf<TypeParam>(out) == bytesOf<TypeParam>(none));
    EXPECT_LT(treeOf<TypeParam>(*out->native())->tileCount(TypeParam::maxDepth),
              treeOf<TypeParam>(*ball<TypeParam>(1)->native())->tileCount(TypeParam::maxDepth));
}

TYPED_TEST(LevelSetNodes, resize_wants_a_level_set)
{
    auto native = nativeVolume<TypeParam>([](Tree<TypeParam>& tree) { tree.tileAccessor().addTile(0, 0, 0, 5); });
    HostPtr volume = hostVolume(std::move(native)), out;
    Messages messages;
    resize_level_set(volume, 2, out, messages.services());
    EXPECT_EQ(messages.list(), (Messages::List{{Severity::kError, "Input 'level_set' is not a volume."}}));
    ASSERT_TRUE(out && out->native());
}

const Messages::List kSizeSaid{{Severity::kInfo, "set_voxel_size.begin"}, {Severity::kInfo, "set_voxel_size.end"}};

TYPED_TEST(LevelSetNodes, set_voxel_size_of_0_or_less_gives_the_input_and_says_begin_and_end)
{
    for (float size : {0.0f, -0.0f, -1.0f, std::numeric_limits<float>::quiet_NaN()}) {
        Messages messages;
        HostPtr out;
        set_voxel_size(ball<TypeParam>(1), size, false, out, messages.services());
        EXPECT_EQ(messages.list(), kSizeSaid);
        EXPECT_EQ(treeOf<TypeParam>(*out->native())->voxelSize(), 0.5f);
        EXPECT_TRUE(bytesOf<TypeParam>(out) == bytesOf<TypeParam>(ball<TypeParam>(1)));
    }
}

TYPED_TEST(LevelSetNodes, set_voxel_size_scales_keeps_values_and_never_reads_the_flag)
{
    for (bool flag : {false, true}) {
        Messages messages;
        HostPtr out;
        const HostPtr in = ball<TypeParam>(1);
        {
            const VerboseLevel telling(1);
            const CapturedStream output;
            set_voxel_size(in, 2, flag, out, messages.services());
            EXPECT_EQ(output.lines(), std::vector<std::string>{"set voxel size: 2"});
        }
        EXPECT_EQ(messages.list(), kSizeSaid);
        EXPECT_EQ(treeOf<TypeParam>(*out->native())->voxelSize(), 2);
        EXPECT_EQ(treeOf<TypeParam>(*in->native())->voxelSize(), 0.5f) << "a shared input stays";
        EXPECT_TRUE(bytesOf<TypeParam>(out) == bytesOf<TypeParam>(in));
        // The topology follows: it is of the tree with the new size.
        EXPECT_TRUE(out->native()->template hasComponentFromName<VoxelTopology<TypeParam>>(sVoxelComp));
        float told = 0;
        get_voxel_size(*out, told, Messages().services());
        EXPECT_EQ(told, 2);
    }
}

TYPED_TEST(LevelSetNodes, set_voxel_size_wants_a_volume_and_stops_when_cancelled)
{
    Messages messages;
    HostPtr out;
    const HostPtr wrong = Ostara::createObject();
    set_voxel_size(wrong, 1, true, out, messages.services());
    EXPECT_EQ(messages.list(), (Messages::List{{Severity::kError, "Input 'volume' is not a volume."}}));
    EXPECT_TRUE(isEmptyObject(out)) << "what came in, which was empty";
    Job job;
    job.cancel();
    Messages cancelled(&job);
    set_voxel_size(ball<TypeParam>(1), 1, true, out, cancelled.services());
    EXPECT_TRUE(isEmptyObject(out));
    EXPECT_EQ(cancelled.list(), Messages::List());
}

TYPED_TEST(LevelSetNodes, depth_is_written_for_the_binary_structure_and_nothing_survives_otherwise)
{
    HostPtr volume = ball<TypeParam>(1);
    Messages messages;
    Internal::compute_volume_depth(sVoxelSignedDistance, 0, 0, 0, volume, messages.services());
    EXPECT_EQ(messages.list(), Messages::List());
    if (TypeParam::branching == 2) {
        ASSERT_TRUE(volume && volume->native());
        EXPECT_NEAR(at<TypeParam>(volume, 0, 0, 0, "voxel_depth"), 0.5 * (9 - std::hypot(0.3, 0.2, 0.1)), 0.05);
        EXPECT_EQ(at<TypeParam>(volume, 12, 0, 0, "voxel_depth"), 0);
    } else {
        EXPECT_FALSE(volume);
    }
    HostPtr without = ball<TypeParam>(1);
    Internal::compute_volume_depth("nothing", 0, 0, 0, without, messages.services());
    EXPECT_FALSE(without);
    EXPECT_EQ(messages.list(), Messages::List());
    HostPtr none;
    Internal::compute_volume_depth(sVoxelSignedDistance, 0, 0, 0, none, messages.services());
    EXPECT_FALSE(none);
    Job job;
    job.cancel();
    HostPtr stopped = ball<TypeParam>(1);
    Internal::compute_volume_depth(sVoxelSignedDistance, 0, 0, 0, stopped, Messages(&job).services());
    EXPECT_TRUE(isEmptyObject(stopped));
}

/// Names of the timers that end while verbose, in that order.
template <class Run> std::vector<std::string> timersOf(Run const& run)
{
    const VerboseLevel telling(2);
    const CapturedStream output;
    run();
    std::vector<std::string> names;
    for (std::string const& line : output.lines())
        if (const auto end = line.find(" : "); end != std::string::npos) names.push_back(line.substr(0, end));
    return names;
}

TYPED_TEST(LevelSetNodes, tell_how_long_they_took_under_their_names)
{
    HostPtr out;
    Messages messages;
    const auto services = messages.services();
    EXPECT_EQ(timersOf([&] { rebuild_level_set(ball<TypeParam>(1), sVoxelSignedDistance, out, services); }),
              (std::vector<std::string>{"Geometry::Volume::rebuild_level_set", "Geometry::Volume::rebuild_level_set"}))
        << "the redistancing and the node";
    EXPECT_EQ(timersOf([&] { resize_level_set(ball<TypeParam>(1), 2, out, services); }).back(), "Volume::resize_level_set");
    const auto coarsening = timersOf([&] { coarsen_voxel_property(ball<TypeParam>(1), sVoxelSignedDistance, 0.05f, 0, true, 2, out, services); });
    ASSERT_GE(coarsening.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(coarsening.end() - 3, coarsening.end()),
              (std::vector<std::string>{"Volume::LevelSet::redistance", "Volume::coarsen_voxel_property.redistance", "Volume::coarsen_voxel_property"}));
    HostPtr volume = ball<TypeParam>(1);
    EXPECT_EQ(timersOf([&] { Internal::compute_volume_depth(sVoxelSignedDistance, 0, 0, 0, volume, services); }).back(), "Volume::compute_volume_depth");
}

TYPED_TEST(LevelSetNodes, rebuild_of_a_cancelled_job_does_not_begin)
{
    Job job;
    job.cancel();
    std::vector<std::string> begun;
    const Corvid::RuntimeServices services(&job, {}, [&](Corvid::StringView what, double) { begun.emplace_back(what); });
    HostPtr out;
    rebuild_level_set(ball<TypeParam>(1), sVoxelSignedDistance, out, services);
    EXPECT_TRUE(isEmptyObject(out));
    EXPECT_TRUE(begun.empty());
}

TYPED_TEST(LevelSetNodes, cancellation_on_the_way_gives_an_empty_object_and_tells_the_host)
{
    const std::pair<char const*, std::function<void(HostPtr&, Corvid::RuntimeServices const&)>> nodes[] = {
        {"rebuild_level_set", [](HostPtr& v, Corvid::RuntimeServices const& s) { rebuild_level_set(std::move(v), sVoxelSignedDistance, v, s); }},
        {"coarsen_voxel_property",
         [](HostPtr& v, Corvid::RuntimeServices const& s) { coarsen_voxel_property(std::move(v), sVoxelSignedDistance, 0.05f, 0, true, 2, v, s); }},
        {"resize_level_set", [](HostPtr& v, Corvid::RuntimeServices const& s) { resize_level_set(std::move(v), 3, v, s); }}};
    for (auto const& [name, run] : nodes) {
        Job counting;
        HostPtr whole = ball<TypeParam>(1);
        run(whole, Messages(&counting).services());
        ASSERT_GT(counting.pollCount(), 3) << name;
        for (std::int64_t poll = 2; poll <= counting.pollCount(); poll += std::max<std::int64_t>(1, counting.pollCount() / 4)) {
            Job job;
            job.cancelAtPoll(poll);
            const Terminations terminations;
            HostPtr volume = ball<TypeParam>(1);
            run(volume, Messages(&job).services());
            EXPECT_TRUE(isEmptyObject(volume)) << name << " at poll " << poll;
            EXPECT_EQ(terminations.names(), std::vector<std::string>{name});
        }
    }
}

}  // namespace
}  // namespace tilegrid::test
