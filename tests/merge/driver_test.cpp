#include "TilegridOps/merge/merge_volumes.h"
#include "merge_volumes.h"
#include "support/output.h"

namespace tilegrid::test {
namespace {

constexpr char kNoVolume[] = "Input 'volumes' contains an object that is not a volume.";
constexpr char kNoSize[] = "Input 'volumes' contains a volume whose voxel size is not positive; it is left out.";

template <class Tr> HostPtr ball(double radius, float voxelSize, World const& centre = {0, 0, 0})
{
    return hostVolume(levelSetAround<Tr>(sphere(centre, radius), voxelSize));
}
/// The same, as if it had been refined to a tolerance.
template <class Tr> HostPtr refinedBall(double radius, float voxelSize, float tolerance)
{
    auto native = levelSetAround<Tr>(sphere({0, 0, 0}, radius), voxelSize);
    auto tree = native->template extractComponent<Tree<Tr>>(sVoxelTileTree);
    tree->setMaxRelativeRefinementError(tolerance);
    native->putComponent(std::move(tree));
    return hostVolume(std::move(native));
}

MergeDecisions decide(std::vector<HostPtr> const& volumes, MergeParameters const& parameters = {})
{
    NativeVolumes natives;
    for (HostPtr const& volume : volumes) natives.push_back(Ostara::Geometry::shallow_copy_object_to_ost_volume(*volume));
    return decideMerge(workingVolumes(natives, false, {}), parameters);
}

class TestMode {
public:
    TestMode() { CoreGL::Logger::setEnableTestMode(true); }
    TestMode(TestMode const&) = delete;
    TestMode& operator=(TestMode const&) = delete;
    ~TestMode() { CoreGL::Logger::setEnableTestMode(false); }
};

bool isBinary(HostPtr const& volume) { return bool(treeIn<BinaryTraits>(volume)); }
bool isQuinary(HostPtr const& volume) { return bool(treeIn<QuinaryTraits>(volume)); }

TEST(MergeVolumes, hands_a_single_volume_through_whatever_the_other_parameters_are)
{
    const HostPtr volume = ball<BinaryTraits>(1.0, 0.125f);
    MergeCase c;
    c.invertOrder = true;
    c.adaptive = true;
    c.scale = 0.5f;
    c.structure = AutoSubdivisionStructure::kQuinary;
    const HostPtr output = merge({volume}, c);
    EXPECT_EQ(output.get(), volume.get());
    EXPECT_EQ(treeIn<BinaryTraits>(output)->voxelSize(), 0.125f);
}

TEST(MergeVolumes, gives_an_empty_object_without_volumes_or_if_it_is_switched_off)
{
    Messages messages;
    EXPECT_TRUE(isEmptyObject(merge({}, {}, messages.services())));
    MergeCase off;
    off.enable = false;
    EXPECT_TRUE(isEmptyObject(merge({ball<BinaryTraits>(1.0, 0.25f)}, off, messages.services())));
    EXPECT_TRUE(isEmptyObject(merge({HostPtr()}, off, messages.services()))) << "nothing is looked at";
    EXPECT_EQ(messages.list(), Messages::List());
}

TEST(MergeVolumes, refuses_null_and_other_objects_with_one_error)
{
    const HostPtr volume = ball<BinaryTraits>(1.0, 0.25f), other = Ostara::createObject();
    for (auto const& volumes : std::vector<std::vector<HostPtr>>{{volume, nullptr}, {nullptr}, {other}, {other, nullptr, volume}}) {
        Messages messages;
        EXPECT_TRUE(isEmptyObject(merge(volumes, {}, messages.services())));
        EXPECT_EQ(messages.list(), (Messages::List{{Severity::kError, kNoVolume}}));
    }
}

TEST(MergeVolumes, take_a_tolerance_in_world_units_whatever_their_level_sets_are)
{
    const HostPtr plate = hostVolume(levelSetAround<BinaryTraits>(box({-0.5, -0.5, -0.02}, {0.5, 0.5, 0.02}), 0.125f));
    MergeParameters parameters;
    parameters.enableAdaptivity = true;
    EXPECT_EQ(decide({plate, plate}, parameters).maxError, 0.0f) << "one layer of voxels is inside: it has no side to relate to";
    parameters.maxError = 0.02f;
    const MergeDecisions flat = decide({plate, plate}, parameters);
    EXPECT_EQ(flat.maxError, 0.02f);
    EXPECT_FLOAT_EQ(flat.maxRelativeError, 0.02f / 0.125f);
    const HostPtr small = ball<BinaryTraits>(0.25, 0.03125f);
    const MergeDecisions related = decide({small, small}, parameters);
    EXPECT_EQ(related.maxError, 0.02f);
    EXPECT_FLOAT_EQ(related.maxRelativeError, 0.02f / (0.03125f * related.referenceLength)) << "what later merges read from the tree";
}

TEST(MergeVolumes, need_not_follow_inputs_that_were_refined)
{
    const HostPtr refined = refinedBall<BinaryTraits>(1.0, 0.125f, 0.01f);
    EXPECT_TRUE(decide({refined, refined}).adaptive);
    MergeParameters parameters;
    parameters.followRefinedInputs = false;
    EXPECT_FALSE(decide({refined, refined}, parameters).adaptive);
}

TEST(MergeVolumes, takes_the_smallest_voxel_and_scales_it_for_adaptive_results_only)
{
    const std::vector<HostPtr> volumes{ball<BinaryTraits>(1.0, 0.1f), ball<BinaryTraits>(1.0, 0.05f)};
    EXPECT_EQ(decide(volumes).outputVoxelSize, 0.05f);
    MergeParameters p;
    p.adaptiveVoxelScale = 0.5f;
    EXPECT_EQ(decide(volumes, p).outputVoxelSize, 0.05f);
    p.enableAdaptivity = true;
    EXPECT_EQ(decide(volumes, p).outputVoxelSize, 0.025f);
    for (float scale : {0.0f, -1.0f, std::numeric_limits<float>::quiet_NaN()}) {
        p.adaptiveVoxelScale = scale;
        EXPECT_EQ(decide(volumes, p).outputVoxelSize, 0.05f) << scale;
    }
    MergeCase c;
    c.adaptive = true;
    c.scale = 0.5f;
    EXPECT_EQ(treeIn<BinaryTraits>(merge(volumes, c))->voxelSize(), 0.025f);
}

TEST(MergeVolumes, keeps_the_smallest_tolerance_that_inputs_were_refined_to)
{
    MergeParameters p;
    p.maxRelativeError = 0.5f;
    p.adaptiveVoxelScale = 0.5f;
    const std::vector<HostPtr> volumes{refinedBall<BinaryTraits>(1.0, 0.1f, 0.02f), refinedBall<QuinaryTraits>(1.0, 0.2f, 0.01f), ball<BinaryTraits>(1.0, 0.3f)};
    const MergeDecisions d = decide(volumes, p);
    EXPECT_TRUE(d.forcedAdaptivity);
    EXPECT_TRUE(d.adaptive);
    EXPECT_EQ(d.maxRelativeError, 0.01f);
    EXPECT_EQ(d.outputVoxelSize, 0.1f) << "not scaled";
    p.enableAdaptivity = true;
    const MergeDecisions asked = decide(volumes, p);
    EXPECT_FALSE(asked.forcedAdaptivity);
    EXPECT_EQ(asked.maxRelativeError, 0.5f);
    MergeCase c;
    c.tolerance = 0.5f;
    EXPECT_EQ(treeIn<BinaryTraits>(merge(volumes, c))->maxRelativeRefinementError(), 0.01f);
}

TEST(MergeVolumes, is_not_forced_to_adapt_in_test_mode)
{
    const TestMode on;
    const std::vector<HostPtr> volumes{refinedBall<QuinaryTraits>(1.0, 0.1f, 0.02f), refinedBall<QuinaryTraits>(1.0, 0.1f, 0.01f)};
    const MergeDecisions d = decide(volumes);
    EXPECT_FALSE(d.forcedAdaptivity);
    EXPECT_FALSE(d.adaptive);
    EXPECT_FALSE(d.outputTraits24);
}

TEST(MergeVolumes, measures_errors_by_the_longest_side_of_the_smallest_level_set)
{
    MergeParameters p;
    p.enableAdaptivity = true;
    p.maxRelativeError = 0.25f;
    // A box 0.5 x 0.25 x 0.375: with voxels of 1/16 the inside voxels are those at the multiples between its faces, both included.
    const auto block = [](double size) { return hostVolume(levelSetAround<BinaryTraits>(box({0, 0, 0}, {size, size / 2, size * 0.75}), 0.0625f)); };
    auto d = decide({block(0.5), ball<BinaryTraits>(3.0, 0.25f)}, p);
    EXPECT_EQ(d.referenceLength, 0.5f);
    EXPECT_EQ(d.maxError, 0.25f * 0.0625f * 0.5f);
    EXPECT_EQ(decide({ball<BinaryTraits>(3.0, 0.25f), ball<QuinaryTraits>(2.0, 0.25f)}, p).referenceLength, 1.0f) << "never above 1";
    p.enableAdaptivity = false;
    EXPECT_EQ(decide({block(0.5), block(0.5)}, p).referenceLength, 1.0f) << "measured for adaptive results only";
}

TEST(MergeVolumes, keeps_the_reference_length_where_inputs_have_no_level_set)
{
    MergeParameters p;
    p.enableAdaptivity = true;
    const HostPtr cloud = hostVolume(volumeAround<BinaryTraits>(sphere({0, 0, 0}, 1.0), 0.125f));
    EXPECT_EQ(decide({cloud, cloud}, p).referenceLength, 1.0f);
    EXPECT_EQ(decide({cloud, ball<BinaryTraits>(0.25, 0.125f)}, p).referenceLength, 0.5f);
    EXPECT_EQ(decide({ball<BinaryTraits>(0.25, 0.125f), cloud}, p).referenceLength, 0.5f);
}

TEST(MergeVolumes, passes_over_level_sets_without_an_inside)
{
    MergeParameters p;
    p.enableAdaptivity = true;
    auto native = volumeAround<BinaryTraits>(sphere({0, 0, 0}, 1.0), 0.125f);
    addField<BinaryTraits, float>(*native, sVoxelSignedDistance, 1.0f, [](World const&) { return 0.5f; });
    const HostPtr allPositive = hostVolume(std::move(native));
    EXPECT_EQ(decide({allPositive, allPositive}, p).referenceLength, 1.0f);
    EXPECT_EQ(decide({allPositive, ball<BinaryTraits>(0.25, 0.125f)}, p).referenceLength, 0.5f);
}

TEST(MergeVolumes, lets_no_error_be_if_a_level_set_is_flat)
{
    MergeParameters p;
    p.enableAdaptivity = true;
    const HostPtr sheet = hostVolume(levelSetAround<BinaryTraits>([](World const& q) { return std::max(std::abs(q[2]), box({-1, -1, -1}, {1, 1, 1})(q)); }, 0.125f));
    const MergeDecisions d = decide({sheet, ball<BinaryTraits>(0.25, 0.125f)}, p);
    EXPECT_EQ(d.referenceLength, 0.0f);
    EXPECT_EQ(d.maxError, 0.0f);
}

TEST(MergeVolumes, is_quinary_only_if_all_inputs_are_and_it_need_not_adapt)
{
    const HostPtr two = ball<BinaryTraits>(1.0, 0.25f), five = ball<QuinaryTraits>(1.0, 0.25f);
    EXPECT_TRUE(isQuinary(merge({five, five})));
    EXPECT_TRUE(isBinary(merge({five, two})));
    EXPECT_TRUE(isBinary(merge({two, five})));
    MergeCase c;
    c.adaptive = true;
    EXPECT_TRUE(isBinary(merge({five, five}, c)));
    EXPECT_TRUE(isBinary(merge({five, refinedBall<QuinaryTraits>(1.0, 0.25f, 0.1f)})));
    c.adaptive = false;
    c.structure = AutoSubdivisionStructure::kBinary;
    EXPECT_TRUE(isBinary(merge({five, five}, c)));
    c.structure = AutoSubdivisionStructure::kQuinary;
    EXPECT_TRUE(isQuinary(merge({two, two}, c)));
    c.structure = AutoSubdivisionStructure(7);
    EXPECT_TRUE(isQuinary(merge({five, five}, c)));
    EXPECT_TRUE(isBinary(merge({two, five}, c)));
}

TEST(MergeVolumes, may_be_quinary_and_adaptive_but_then_records_no_tolerance)
{
    MergeCase c;
    c.adaptive = true;
    c.tolerance = 0.05f;
    c.structure = AutoSubdivisionStructure::kQuinary;
    const std::vector<HostPtr> volumes{ball<BinaryTraits>(1.0, 0.125f), ball<BinaryTraits>(0.5, 0.125f)};
    const HostPtr quinary = merge(volumes, c);
    ASSERT_TRUE(isQuinary(quinary));
    EXPECT_EQ(treeIn<QuinaryTraits>(quinary)->maxRelativeRefinementError(), 0.0f);
    EXPECT_GT(treeIn<QuinaryTraits>(quinary)->tileCount(12), 0);
    c.structure = AutoSubdivisionStructure::kAutomatic;
    EXPECT_EQ(treeIn<BinaryTraits>(merge(volumes, c))->maxRelativeRefinementError(), 0.05f);
}

TEST(MergeVolumes, leaves_inputs_as_they_are_and_carries_entries_along)
{
    auto first = levelSetAround<BinaryTraits>(sphere({0, 0, 0}, 1.0), 0.25f), second = levelSetAround<BinaryTraits>(sphere({1, 0, 0}, 1.0), 0.25f);
    first->attributes()["author"] = Corvid::Any(1);
    second->attributes()["author"] = Corvid::Any(2);
    second->attributes()["year"] = Corvid::Any(3);
    const HostPtr a = hostVolume(std::move(first)), b = hostVolume(std::move(second));
    const auto before = valuesByTile<BinaryTraits>(a);
    MergeCase c;
    c.invertOrder = true;
    const HostPtr result = merge({a, b}, c);
    EXPECT_EQ(bitDifference(valuesByTile<BinaryTraits>(a), before), "");
    ASSERT_TRUE(result->get<int>("author") && result->get<int>("year"));
    EXPECT_EQ(*result->get<int>("author"), 1) << "in the order of the inputs, not of the merge";
    EXPECT_EQ(*result->get<int>("year"), 3);
    EXPECT_TRUE(Ostara::Object::isA(*result, *Ostara::Geometry::getLevelSetPrototype()));
}

TEST(MergeVolumes, leaves_out_volumes_without_a_voxel_size_and_says_so)
{
    const HostPtr good = ball<BinaryTraits>(1.0, 0.25f);
    for (float size : {0.0f, -1.0f, std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
        auto native = levelSetAround<BinaryTraits>(sphere({0, 0, 0}, 1.0), 0.25f);
        auto tree = native->extractComponent<Tree<BinaryTraits>>(sVoxelTileTree);
        tree->setVoxelSize(size);
        native->putComponent(std::move(tree));
        const HostPtr bad = hostVolume(std::move(native));
        for (bool adaptive : {false, true}) {
            Messages messages;
            MergeCase c;
            c.adaptive = adaptive;
            const HostPtr result = merge({bad, good}, c, messages.services());
            EXPECT_EQ(messages.list(), (Messages::List{{Severity::kWarning, kNoSize}}));
            EXPECT_EQ(treeIn<BinaryTraits>(result)->voxelSize(), 0.25f);
            EXPECT_EQ(bitDifference(valuesByTile<BinaryTraits>(result), valuesByTile<BinaryTraits>(merge({good, good}, c))), "");
            const HostPtr nothing = merge({bad, bad}, c, messages.services());
            EXPECT_TRUE(tilesOf<BinaryTraits>(nothing).empty() && tilesOf<QuinaryTraits>(nothing).empty());
        }
    }
}

TEST(MergeVolumes, ends_with_values_that_are_no_numbers)
{
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    for (float wrong : {nan, inf, -inf, 1e38f}) {
        auto native = levelSetAround<BinaryTraits>(sphere({0, 0, 0}, 1.0), 0.25f);
        auto channel = native->extractComponent<Plain<BinaryTraits>>(sVoxelSignedDistance);
        Random random(5);
        for (OST::int64 n = 0; n < channel->tileCount(-1); ++n)
            for (float& v : channel->tileData(n).vector())
                if (random.oneIn(3)) v = wrong;
        native->putComponent(std::move(channel));
        const HostPtr bad = hostVolume(std::move(native)), good = ball<BinaryTraits>(0.7, 0.25f);
        for (bool adaptive : {false, true})
            for (auto interpolation : {Interpolation::kLinear, Interpolation::kCubicC1Monotonic}) {
                MergeCase c;
                c.adaptive = adaptive;
                c.interpolation = interpolation;
                EXPECT_TRUE(treeIn<BinaryTraits>(merge({good, bad}, c))) << wrong;
                EXPECT_TRUE(treeIn<BinaryTraits>(merge({bad, good}, c))) << wrong;
            }
    }
}

TEST(MergeVolumes, takes_inverted_level_sets_as_the_outside_of_things)
{
    const Distance inverted = [](World const& p) { return -sphere({0, 0, 0}, 1.0)(p); };
    const HostPtr hole = hostVolume(levelSetAround<BinaryTraits>(inverted, 0.125f)), round = ball<BinaryTraits>(1.5, 0.125f);
    MergeCase c;
    c.levelSet = LevelSetMode::kIntersection;
    for (bool adaptive : {false, true}) {
        c.adaptive = adaptive;
        const HostPtr shell = merge({round, hole}, c);
        for (auto const& [key, values] : valuesByTile<BinaryTraits>(shell)) {
            if (key.depth != 28) continue;
            for (int flat = 0; flat < 64; ++flat) {
                const World p = placeOf<BinaryTraits>(key, flat, 0.125f, 7);
                const double r = sphere({0, 0, 0}, 0.0)(p), expected = std::max(r - 1.5, 1.0 - r);
                if (!(std::abs(expected) < 0.25)) continue;
                EXPECT_NEAR(values[std::size_t(flat)], expected, 0.06) << key;
            }
        }
    }
}

TEST(MergeVolumes, counts_volumes_that_lost_their_native_part_as_empty)
{
    const HostPtr lost = Corvid::makeMutable<Ostara::Object>(Ostara::Geometry::getVolumePrototype()), good = ball<BinaryTraits>(1.0, 0.25f);
    EXPECT_EQ(bitDifference(valuesByTile<BinaryTraits>(merge({lost, good})), valuesByTile<BinaryTraits>(good)), "");
    EXPECT_TRUE(merge({lost, lost})->native());
}

TEST(MergeVolumes, tells_what_it_decides_at_a_verbose_level_above_1)
{
    const HostPtr a = ball<BinaryTraits>(1.0, 0.25f), b = ball<BinaryTraits>(0.5, 0.25f);
    const VerboseLevel level(2);
    CapturedStream out;
    merge({a, b});
    const std::string text = out.text();
    for (char const* line : {"merge_volumes_internal.input_parameters: \n enable = 1\n invert_order = 0\n level_set_mode = 0\n fog_density_mode = 0\n alpha = 0.5\n properties_mode = 10\n interpolation_type = 0\n enable_adaptivity = 0\n adaptive_voxel_scale = 1\n max_relative_error = 0.01\n",
                             "numVolumes = 2\n", "container->maxRelativeRefinementError() = 0\n", "Enable forced adaptivity = 0 , enableTestMode = 0\nmaxRelativeError = 0.01\n",
                             "outputVoxelSize = 0.25\n", "outputTraits24 = 1\n", "maxError = 0.0025\n", "containerOut.voxelCount() = 0\n",
                             "After merging with volume 0: containerOut.voxelCount() = ", "After merging with volume 1: containerOut.voxelCount() = ",
                             "Found 0 properties\n", "Found level set\n", "Resampling level set\n", "Merging level set\n", "after merging"})
        EXPECT_NE(text.find(line), std::string::npos) << line << "\nin\n" << text;
}

TEST(MergeVolumes, is_quiet_otherwise)
{
    const HostPtr a = ball<BinaryTraits>(1.0, 0.25f);
    CapturedStream out;
    merge({a, a});
    EXPECT_EQ(out.text(), "");
}

}  // namespace
}  // namespace tilegrid::test
