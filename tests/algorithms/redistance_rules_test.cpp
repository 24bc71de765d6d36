#include "TilegridOps/substrate/dependent_values.h"
#include "redistance_world.h"
#include "support/clusters.h"

/// What each argument of a redistancing does, and input that is no level set.
namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

const Point kCentre = {0.31, -0.17, 0.23};

template <class Tr> class RedistanceRules : public ::testing::Test {
public:
    using World = Redistanced<Tr>;
    using Call = typename World::Call;
    static constexpr int fine = Tr::maxDepth;
    static World cube(Field const& field, int half = 16, float voxelSize = 1.0f)
    {
        World world(cubeOfTiles<Tr>(fine, -half, half), fine, voxelSize);
        world.fill(field);
        return world;
    }
    static World ball() { return cube(sphere(kCentre, 9)); }
    static Call coarsenCall()
    {
        Call call;
        call.resetFar = call.resetCrossing = false;
        call.pre = call.post = 0;
        return call;
    }
    /// Largest difference of two fields at the finest depth, in voxels, within 5 of the surface of `ball`.
    static double difference(World const& a, World const& b)
    {
        Errors most;
        a.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
            if (t.depth == fine && std::abs(sphere(kCentre, 9)(p)) <= 5) most.add(a.length(a.at(t, v)) - b.length(b.at(t, v)));
        });
        EXPECT_GT(most.count, 1000);
        return most.largest;
    }
    /// Expects equal bytes of a call on a copy of a world, whatever the number of threads.
    static void expectSameBytes(World const& world, Call const& call)
    {
        std::string first;
        for (int threads : kThreadCounts) {
            auto run = world;
            parallel::runJob(nullptr, threads, [&] { run.redistance(call); });
            if (first.empty()) first = run.bytes();
            EXPECT_TRUE(first == run.bytes()) << threads << " threads";
        }
        EXPECT_FALSE(first == world.bytes());
    }
    /// Whether nothing happens to the field, bit for bit.
    static bool untouched(World world, Call const& call = {})
    {
        const std::string before = world.bytes();
        world.redistance(call);
        return before == world.bytes();
    }
};
TYPED_TEST_SUITE(RedistanceRules, Structures, StructureNames);

TYPED_TEST(RedistanceRules, any_limit_of_rounds_ends_and_gives_the_same_near_the_surface)
{
    using Fixture = TestFixture;
    std::vector<typename Fixture::World> results;
    for (auto [pre, post] : {std::pair(0, 0), {10, 10}, {10, 2}, {1 << 30, 1 << 30}}) {
        auto world = this->ball();
        typename Fixture::Call call;
        call.pre = pre;
        call.post = post;
        call.band = 1;
        world.redistance(call);
        results.push_back(std::move(world));
    }
    EXPECT_LE(this->difference(results[1], results[2]), 0.03);
    EXPECT_LE(this->difference(results[1], results[3]), 0.03);
    EXPECT_LE(this->difference(results[2], results[3]), 0.03);
}

TYPED_TEST(RedistanceRules, same_bytes_for_any_number_of_threads)
{
    const Field stretched = [](Point const& p) { return 1.5 * sphere(kCentre, 25)(p); };
    auto world = this->cube(stretched, 32);
    typename TestFixture::Call call;
    this->expectSameBytes(world, call);
    call = this->coarsenCall();
    this->expectSameBytes(world, call);
    call = {};
    auto blocked = *world.values;
    world.forVoxels([&](TreeIndex const& t, int v, Point const& p) { blocked.tileData(t)(v) = p[0] > 3 ? 1.0f : -1.0f; });
    call.blocked = &blocked;
    call.keepSigns = false;
    this->expectSameBytes(world, call);

    TileSet<TypeParam> halves;
    const std::int64_t h = 30;
    halves.addBox({-h, -h, -h}, {-1, h - 1, h - 1}, this->fine);
    halves.addBox({0, -h, -h}, {h - 1, h - 1, h - 1}, this->fine - 2);
    typename TestFixture::World ungraded(halves, this->fine);
    ungraded.fill([](Point const& p) { return 1.5 * sphere(kCentre, 20)(p); });
    this->expectSameBytes(ungraded, {});
}

TYPED_TEST(RedistanceRules, a_distance_that_is_trusted_keeps_its_bits)
{
    // Exact at free voxels; the others follow from them, so they are put in place first.
    auto world = this->ball();
    setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, world.tree, *world.values, *world.dofs, kNonDofCopy);
    auto call = this->coarsenCall();
    for (int limit : {0, -1}) {
        call.pre = call.post = limit;
        auto kept = world;
        kept.redistance(call);
        EXPECT_TRUE(kept.bytes() == world.bytes()) << "at every depth, with " << limit << " rounds";
    }
    // One wrong voxel far from the crossing, and one next to it, by 0.5 and 0.01 voxels.
    auto accessor = world.tree.tileAccessor();
    const int w = int(TileSet<TypeParam>::voxelWidth(this->fine));
    auto at = [&](int i) -> float& {
        const TreeIndex tile = accessor.find(i * w, 0, 0, this->fine);
        return world.at(tile, flatIndex(TypeParam::width, i - world.tree.tile(tile).tijk().x, -world.tree.tile(tile).tijk().y, -world.tree.tile(tile).tijk().z));
    };
    const float far = at(13), near = at(12);
    at(13) += 0.5f;
    at(12) += 0.01f;
    world.redistance(call);
    EXPECT_NEAR(at(13), far, 0.01);
    EXPECT_EQ(at(12), near + 0.01f);
}

TYPED_TEST(RedistanceRules, without_a_crossing_nothing_is_written)
{
    EXPECT_TRUE(this->untouched(this->cube([](Point const&) { return 3.0; })));
    EXPECT_TRUE(this->untouched(this->cube([](Point const&) { return -3.0; })));
    EXPECT_TRUE(this->untouched(this->cube([](Point const&) { return 0.0; })));
    EXPECT_TRUE(this->untouched(this->cube([](Point const&) { return std::nan(""); })));
}

TYPED_TEST(RedistanceRules, bad_sizes_and_depths_do_nothing)
{
    for (float size : {0.0f, -1.0f, std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN()}) {
        auto world = this->ball();
        world.tree.setVoxelSize(size);
        EXPECT_TRUE(this->untouched(world)) << size;
    }
    typename TestFixture::Call call;
    call.minDepth = 5;
    call.maxDepth = 3;
    EXPECT_TRUE(this->untouched(this->ball(), call));
    call = {};
    call.minDepth = -100;
    call.maxDepth = 100;
    auto all = this->ball(), clamped = this->ball();
    all.redistance();
    clamped.redistance(call);
    EXPECT_TRUE(all.bytes() == clamped.bytes());
    typename TestFixture::World empty(TileSet<TypeParam>(), this->fine);
    EXPECT_NO_THROW(empty.redistance());
}

TYPED_TEST(RedistanceRules, what_is_not_finite_is_rewritten)
{
    const Field exact = sphere(kCentre, 9);
    for (float bad : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
        auto world = this->ball();
        // The first voxel next to the surface on the outside.
        bool done = false;
        world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
            if (done || t.depth != this->fine || !(exact(p) > 0 && exact(p) < 0.5)) return;
            world.at(t, v) = bad;
            done = true;
        });
        ASSERT_TRUE(done);
        world.redistance();
        EXPECT_LE(errorsOf<TypeParam>(world, exact, 3).largest, 0.1);
    }
}

TYPED_TEST(RedistanceRules, magnitudes_are_cut_by_side)
{
    auto world = this->cube(sphere(kCentre, 9), 16, 0.5f);
    typename TestFixture::Call call;
    const float h = 0.5f * float(TileSet<TypeParam>::voxelWidth(this->fine));
    call.maxOutside = 2 * h;
    call.maxInside = 4 * h;
    world.redistance(call);
    float least = 0, most = 0;
    world.forVoxels([&](TreeIndex const& t, int v, Point const&) {
        if (t.depth != this->fine) return;
        least = std::min(least, world.at(t, v));
        most = std::max(most, world.at(t, v));
    });
    EXPECT_EQ(least, -4 * h);
    EXPECT_EQ(most, 2 * h);
}

TYPED_TEST(RedistanceRules, magnitudes_alone_if_asked)
{
    auto world = this->ball(), plain = this->ball();
    typename TestFixture::Call call;
    call.magnitude = true;
    call.restore = false;
    world.redistance(call);
    call.magnitude = false;
    plain.redistance(call);
    bool same = true;
    world.forVoxels([&](TreeIndex const& t, int v, Point const&) {
        // On the surface a sign needs a magnitude: a millionth of a voxel.
        const double least = 1e-6 * double(TileSet<TypeParam>::voxelWidth(t.depth));
        same &= world.at(t, v) == std::abs(plain.at(t, v)) || (world.at(t, v) <= least && plain.at(t, v) >= -1.001 * least);
    });
    EXPECT_TRUE(same);
}

TYPED_TEST(RedistanceRules, frozen_voxels_keep_their_values_and_the_mask_tells_what_was_written)
{
    auto world = this->cube([](Point const& p) { return 1.5 * sphere(kCentre, 9)(p); });
    unsigned char one = 1;
    Channel<TypeParam, unsigned char, TypeParam::width, 0> mask("mask", &one, kInitializeNone, false, true, 0, TypeParam::maxDepth);
    mask.updateTilesAdded(world.topology);
    world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (p[0] < 0) mask.tileData(t)(v) = 0;
    });
    typename TestFixture::Call call;
    call.mask = &mask;
    call.restore = false;
    auto before = world;
    world.redistance(call);
    bool frozenKept = true, othersRight = true;
    world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (p[0] < 0)
            frozenKept &= world.at(t, v) == before.at(t, v) && mask.tileData(t)(v) == 0;
        else if (t.depth == this->fine)
            othersRight &= mask.tileData(t)(v) == 2 && (std::abs(sphere(kCentre, 9)(p)) > 3 || std::abs(world.length(world.at(t, v)) - sphere(kCentre, 9)(p)) < 0.02);
    });
    EXPECT_TRUE(frozenKept);
    EXPECT_TRUE(othersRight);
}

/// Liquid below y = -2.4 between walls where |x| or |z| is above 10, on a floor below -12.
template <class Tr> struct Pool {
    static constexpr double surface = -2.4, wall = 10, floor = -12;
    Redistanced<Tr> world;
    typename Redistanced<Tr>::Floats blocked;

    explicit Pool(Redistanced<Tr> const& w, bool lid) : world(w), blocked(*w.values)
    {
        world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
            bool solid = std::abs(p[0]) > wall || std::abs(p[2]) > wall || p[1] < floor;
            if (lid) solid = solid || p[1] > surface - 1;
            blocked.tileData(t)(v) = solid ? 1.0f : -1.0f;
        });
    }
};

TYPED_TEST(RedistanceRules, walls_are_no_surface_of_the_liquid)
{
    Pool<TypeParam> pool(this->cube([](Point const& p) { return p[1] - Pool<TypeParam>::surface; }), false);
    auto& world = pool.world;
    // As a particle liquid comes in: nothing but air in the solids.
    world.forVoxels([&](TreeIndex const& t, int v, Point const&) {
        if (pool.blocked.tileData(t)(v) >= 0) world.at(t, v) = 3;
    });
    typename TestFixture::Call call;
    call.blocked = &pool.blocked;
    call.keepSigns = false;
    call.restore = false;
    call.pre = call.post = 1 << 30;
    world.redistance(call);
    Errors freeSurface, deep;
    std::int64_t wrongSides = 0, walls = 0;
    world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (t.depth != this->fine || std::max({std::abs(p[0]), std::abs(p[1]), std::abs(p[2])}) > 15) return;
        const double exact = p[1] - pool.surface, got = world.length(world.at(t, v));
        const bool solid = pool.blocked.tileData(t)(v) >= 0;
        if (!solid && std::abs(exact) < 1) freeSurface.add(got - exact);
        if (!solid && exact < -4) deep.add(got / exact - 1);
        // Beside the liquid the solid is liquid too: no crossing along the walls and the floor.
        if (!solid || std::max(std::abs(p[0]), std::abs(p[2])) > 11 || p[1] < pool.floor - 1) return;
        ++walls;
        wrongSides += (got < 0) != (exact < 0);
    });
    EXPECT_GT(freeSurface.count, 300);
    EXPECT_LE(freeSurface.largest, 1e-5);
    EXPECT_GT(deep.count, 1000);
    EXPECT_LE(deep.largest, 0.02);
    EXPECT_GT(walls, 1000);
    EXPECT_EQ(wrongSides, 0);
}

TYPED_TEST(RedistanceRules, blocked_voxels_keep_their_bits_if_signs_are_kept)
{
    Pool<TypeParam> pool(this->cube([](Point const& p) { return 1.7 * (p[1] - Pool<TypeParam>::surface); }), false);
    auto& world = pool.world;
    const auto before = world;
    typename TestFixture::Call call;
    call.blocked = &pool.blocked;
    call.restore = false;
    world.redistance(call);
    bool kept = true;
    world.forVoxels([&](TreeIndex const& t, int v, Point const&) {
        if (pool.blocked.tileData(t)(v) >= 0) kept &= world.at(t, v) == before.at(t, v);
    });
    EXPECT_TRUE(kept);
}

TYPED_TEST(RedistanceRules, liquid_shut_in_by_solids_is_pushed_away_from_any_surface)
{
    Pool<TypeParam> pool(this->cube([](Point const& p) { return 0.1 * (p[1] - Pool<TypeParam>::surface); }), true);
    typename TestFixture::Call call;
    call.blocked = &pool.blocked;
    call.restore = false;
    pool.world.redistance(call);
    bool inside = true;
    std::int64_t liquid = 0;
    pool.world.forVoxels([&](TreeIndex const& t, int v, Point const&) {
        if (pool.blocked.tileData(t)(v) >= 0) return;
        ++liquid;
        inside &= pool.world.at(t, v) <= -3;
    });
    EXPECT_GT(liquid, 1000);
    EXPECT_TRUE(inside);
}

TYPED_TEST(RedistanceRules, cancellation_comes_out_at_every_poll)
{
    auto start = this->cube(sphere(kCentre, 25), 32);
    auto world = start;
    Job counting;
    parallel::runJob(&counting, 2, [&] { world.redistance(); });
    ASSERT_GT(counting.pollCount(), 4);
    for (std::int64_t poll = 1; poll <= counting.pollCount(); poll += std::max<std::int64_t>(1, counting.pollCount() / 5))
        EXPECT_TRUE(cancelledAt(poll, 2, [&] { start.redistance(); }));
}

}  // namespace
}  // namespace tilegrid::test
