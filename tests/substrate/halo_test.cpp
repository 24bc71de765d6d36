#include "TilegridOps/substrate/halo.h"
#include "support/halo_world.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;
using Ostara::Math::float3;

/// How a position must come out: its value, how far it may be off, or not at all.
struct Expected {
    double value, tolerance;
};

template <class Tr>
Expected expectedAt(SiteOracle<Tr>& oracle, TileKey const& tile, int const (&position)[3], HaloMode mode, int type)
{
    const int bits[] = {4, 1, 2, 8};
    int beyond = 0;
    Place cell = tile.low;
    for (int a = 0; a < 3; ++a) {
        beyond += position[a] < 0 || position[a] >= Tr::width;
        cell[a] += position[a] * TileSet<Tr>::voxelWidth(tile.depth);
    }
    if (!(type & bits[beyond])) return {kUntouched, 0};
    const auto covering = oracle.covering(cell, tile.depth);
    if (!covering) return {oracle.outside, 0};
    if (covering->depth < tile.depth && mode == kHaloSameDepth) return {oracle.outside, 0};
    if (mode == kHaloInject) return {oracle.voxelAt(*covering, cell), 0};
    const auto site = oracle.at(cell, tile.depth);
    return {site.value, site.levels * kMixError};
}

/// The first positions of one gathered tile that are wrong, over the whole array.
template <class Tr, class T, int H, int E, int Up>
std::string haloFaults(World<Tr, T> const& world, SiteOracle<Tr>& oracle, TreeIndex const& tile, HaloMode mode,
                       int type, int offset, double* largestError = nullptr)
{
    constexpr int low = -H, high = Tr::width + E + Up + H, n = high - low;
    TileData<T, Tr::width + E + Up, H> out(n * n * n, elementOf<T>(kUntouched));
    auto accessor = world.tree.tileAccessor();
    setHaloTile<Tr, T, 0, H, E, Up>(tile, *world.channel, mode, static_cast<HaloType>(type), accessor, out, kFill, 1.0f,
                                    static_cast<VoxelOffsetType>(offset));
    std::ostringstream faults;
    for (int k = low; k < high; ++k)
        for (int j = low; j < high; ++j)
            for (int i = low; i < high; ++i) {
                const TileKey key = keyOf(world.tree.tile(tile));
                const Expected expected = expectedAt<Tr>(oracle, key, {i, j, k}, mode, type);
                const double error = std::abs(static_cast<double>(out(i, j, k)) - expected.value);
                if (largestError) *largestError = std::max(*largestError, error);
                if (!(error <= expected.tolerance) && faults.tellp() < 400)
                    faults << "(" << i << ", " << j << ", " << k << ") of " << key << ", mode " << mode << ", type "
                           << type << ", offset " << offset << ": " << out(i, j, k) << " instead of " << expected.value
                           << "\n";
            }
    return faults.str();
}

/// All shapes of target.
template <class Tr, class T>
std::string faultsOfAllShapes(World<Tr, T> const& world, SiteOracle<Tr>& oracle, TreeIndex const& tile, HaloMode mode,
                              int type, int offset)
{
    return haloFaults<Tr, T, 1, 0, 0>(world, oracle, tile, mode, type, offset)
        + haloFaults<Tr, T, 2, 0, 0>(world, oracle, tile, mode, type, offset)
        + haloFaults<Tr, T, 1, 0, 1>(world, oracle, tile, mode, type, offset)
        + haloFaults<Tr, T, 0, 1, 0>(world, oracle, tile, mode, type, offset);
}

template <class Tr> class Halo : public ::testing::Test {
public:
};
TYPED_TEST_SUITE(Halo, Structures, StructureNames);

TYPED_TEST(Halo, agrees_with_the_oracle_on_random_trees)
{
    for (bool graded : {false, true}) {
        const World<TypeParam, float> world(randomSet<TypeParam>(graded ? 5 : 6, 40, graded), noise);
        for (HaloMode mode : {kHaloSameDepth, kHaloInject, kHaloFromParent, kHaloLinear})
            for (int offset : {7, 0}) {
                auto oracle = world.oracle(noise, offset, mode == kHaloFromParent);
                std::string faults;
                for (TreeIndex const& tile : someTiles(world.tree, 50))
                    faults += faultsOfAllShapes(world, oracle, tile, mode, kHaloAll, offset);
                EXPECT_EQ(faults.substr(0, 800), "")
                    << (graded ? "graded" : "not graded") << ", mode " << mode << ", offset " << offset;
            }
    }
}

TYPED_TEST(Halo, at_the_border_of_tile_space_has_the_fill_value_beyond_at_every_depth)
{
    using Set = TileSet<TypeParam>;
    Set set;
    set.add({Set::rangeMin, Set::rangeMin, Set::rangeMin}, Set::maxDepth);
    set.add({Set::rangeMax, Set::rangeMax, Set::rangeMax}, Set::maxDepth);
    const World<TypeParam, float> world(set, noise);
    const auto accessor = world.tree.tileAccessor();
    constexpr int W = TypeParam::width;
    for (HaloMode mode : {kHaloSameDepth, kHaloInject, kHaloFromParent, kHaloLinear})
        for (OST::int64 n = 0; n < world.tree.tileCount(-1); ++n) {
            auto const& tile = world.tree.tile(n);
            TileData<float, W, 1> out((W + 2) * (W + 2) * (W + 2), kUntouched);
            setHaloTile<TypeParam, float, 0, 1, 0, 0>(tile.treeIndex(), *world.channel, mode, kHaloAll, accessor, out, kFill, 1.0f, kCorner);
            const bool low = tile.tijk().x == int(Set::rangeMin), high = tile.tijk().x > 0 || tile.depth() == 0;
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j) {
                    if (low) {
                        EXPECT_EQ(out(-1, j, k), kFill) << keyOf(tile);
                    }
                    if (high) {
                        EXPECT_EQ(out(W, j, k), kFill) << keyOf(tile);
                    }
                    EXPECT_EQ(out(1, j, k), world.channel->tileData(tile.treeIndex())(1, j, k));
                }
            for (float v : out) EXPECT_NE(v, kUntouched);
        }
}

TYPED_TEST(Halo, reads_every_axis_by_its_own_offset_bit)
{
    const World<TypeParam, float> world(randomSet<TypeParam>(7, 40, true), noise);
    for (int offset = 0; offset < 8; ++offset) {
        auto oracle = world.oracle(noise, offset, false);
        std::string faults;
        for (TreeIndex const& tile : someTiles(world.tree, 25))
            faults += haloFaults<TypeParam, float, 2, 0, 0>(world, oracle, tile, kHaloLinear, kHaloAll, offset);
        EXPECT_EQ(faults.substr(0, 800), "") << "offset " << offset;
    }
}

TYPED_TEST(Halo, writes_only_the_positions_that_its_type_names)
{
    const World<TypeParam, float> world(randomSet<TypeParam>(8, 30, true), noise);
    auto oracle = world.oracle(noise, 7, false);
    std::string faults;
    for (int type = 0; type < 16; ++type)
        for (TreeIndex const& tile : someTiles(world.tree, 8))
            faults += faultsOfAllShapes(world, oracle, tile, kHaloLinear, type, 7);
    EXPECT_EQ(faults.substr(0, 800), "");
}

TYPED_TEST(Halo, keeps_to_the_depths_of_the_channel)
{
    constexpr int D = TypeParam::maxDepth;
    const auto set = randomSet<TypeParam>(9, 30, false);
    for (auto [low, high] : {std::pair{D - 3, D}, {2, D - 2}, {D, D}, {0, 0}}) {
        const World<TypeParam, float> world(set, noise, low, high);
        for (HaloMode mode : {kHaloSameDepth, kHaloInject, kHaloFromParent, kHaloLinear}) {
            auto oracle = world.oracle(noise, 7, mode == kHaloFromParent);
            std::string faults;
            for (TreeIndex const& tile : someTiles(world.tree, 30))
                faults += faultsOfAllShapes(world, oracle, tile, mode, kHaloAll, 7);
            EXPECT_EQ(faults.substr(0, 800), "") << "depths " << low << " to " << high << ", mode " << mode;
        }
    }
}

/// A tile with all neighbours of its depth but one, and two layers of tiles of the depth above around it.
template <class Tr> TileSet<Tr> jumpTowards(Place const& low, int depth, int missing)
{
    using Set = TileSet<Tr>;
    Set set;
    for (int n = 0; n < 125; ++n) {
        const int step[3] = {n % 5 - 2, n / 5 % 5 - 2, n / 25 - 2};
        Place place = low;
        for (int a = 0; a < 3; ++a) place[a] += step[a] * Set::tileWidth(depth - 1);
        set.add(place, depth - 1);
    }
    for (int n = 0; n < 27; ++n) {
        if (n == missing) continue;
        const int step[3] = {n % 3 - 1, n / 3 % 3 - 1, n / 9 - 1};
        Place place = low;
        for (int a = 0; a < 3; ++a) place[a] += step[a] * Set::tileWidth(depth);
        set.add(place, depth);
    }
    return set;
}

TYPED_TEST(Halo, reproduces_a_linear_function_across_a_jump_in_every_direction)
{
    using Set = TileSet<TypeParam>;
    constexpr int D = TypeParam::maxDepth;
    double largest = 0;
    for (int offset : {7, 0, 3})
        for (int cell = 0; cell < TypeParam::childCount; cell += TypeParam::branching == 2 ? 1 : 31)
            for (int missing = 0; missing < 27; ++missing) {
                if (missing == 13) continue;
                const TileKey centre = Set::childOf(Set::keyAt({1000, 2000, -3000}, D - 2), cell);
                const auto linear = [&](TileKey const& key, int i, int j, int k) {
                    const int voxel[3] = {i, j, k};
                    double at[3];
                    for (int a = 0; a < 3; ++a) {
                        const double w = static_cast<double>(Set::voxelWidth(key.depth));
                        at[a] = static_cast<double>(key.low[a] - centre.low[a])
                            + w * (voxel[a] + (offset >> a & 1 ? 0.0 : 0.5));
                    }
                    return 1 + 2 * at[0] - 3 * at[1] + 5 * at[2];
                };
                const World<TypeParam, float> world(jumpTowards<TypeParam>(centre.low, D - 1, missing), linear);
                const TreeIndex tile = indexOf(world.tree, Set::keyAt(centre.low, D - 1));
                constexpr int W = TypeParam::width, low = -2, high = W + 2;
                TileData<float, W, 2> out((W + 4) * (W + 4) * (W + 4));
                auto accessor = world.tree.tileAccessor();
                for (HaloMode mode : {kHaloLinear, kHaloFromParent}) {
                    setHaloTile<TypeParam, float, 0, 2, 0, 0>(tile, *world.channel, mode, kHaloAll, accessor, out,
                                                              kFill, 1.0f, static_cast<VoxelOffsetType>(offset));
                    for (int k = low; k < high; ++k)
                        for (int j = low; j < high; ++j)
                            for (int i = low; i < high; ++i) {
                                const double exact = linear(keyOf(world.tree.tile(tile)), i, j, k);
                                largest = std::max(largest, std::abs(out(i, j, k) - exact));
                            }
                }
            }
    // Four units in the last place of the largest term, 5 z with z up to W + 2.5 voxels of the coarse tile that is read.
    const double width = static_cast<double>(Set::voxelWidth(D - 1));
    const double term = 5 * width * (TypeParam::width + 2.5);
    EXPECT_LE(largest, 4 * std::exp2(std::floor(std::log2(term)) - 23));
    this->RecordProperty("largestError", std::to_string(largest));
}

TYPED_TEST(Halo, takes_coincident_voxels_of_a_coarser_tile_bit_for_bit)
{
    const World<TypeParam, float> world(randomSet<TypeParam>(10, 40, true), noise);
    constexpr int W = TypeParam::width;
    auto accessor = world.tree.tileAccessor();
    TileData<float, W, 1> out((W + 2) * (W + 2) * (W + 2));
    int seen = 0;
    for (int64 n = 0; n < world.tree.tileCount(-1); ++n) {
        auto const& tile = world.tree.tile(n);
        setHaloTile<TypeParam, float, 0, 1, 0, 0>(tile.treeIndex(), *world.channel, kHaloLinear, kHaloAll, accessor,
                                                  out, kFill, 1.0f, kCorner);
        for (int side = 0; side < 3; ++side) {
            int3 step(0);
            step[side] = 1;
            auto const& neighbor = accessor.tileNeighbor(tile, neighborDirection(step.x, step.y, step.z));
            if (!neighbor.valid() || neighbor.depth() == tile.depth()) continue;
            const auto coarse = world.channel->tileData(neighbor.treeIndex());
            const int w = tile.voxelDataWidth(), p = neighbor.voxelDataWidth();
            for (int a = 0; a < W; ++a)
                for (int b = 0; b < W; ++b) {
                    const int3 position = side == 0 ? int3(W, a, b) : side == 1 ? int3(a, W, b) : int3(a, b, W);
                    const int3 from = tile.tijk() + w * position - neighbor.tijk();
                    if (from.x % p || from.y % p || from.z % p) continue;
                    ASSERT_EQ(out(position), coarse(from.x / p, from.y / p, from.z / p));
                    ++seen;
                }
        }
    }
    EXPECT_GT(seen, 100);
}

TYPED_TEST(Halo, is_the_same_with_and_without_the_neighbour_table)
{
    World<TypeParam, float> world(randomSet<TypeParam>(11, 40, false), noise);
    constexpr int W = TypeParam::width, n = (W + 2) * (W + 2) * (W + 2);
    TileData<float, W, 1> before(n), after(n);
    std::vector<float> searched, loaded;
    for (std::vector<float>* all : {&searched, &loaded}) {
        auto accessor = std::as_const(world.tree).tileAccessor();
        for (int64 t = 0; t < world.tree.tileCount(-1); ++t) {
            setHaloTile<TypeParam, float, 0, 1, 0, 0>(world.tree.tile(t).treeIndex(), *world.channel, kHaloLinear,
                                                      kHaloAll, accessor, before, kFill, 1.0f, kCorner);
            all->insert(all->end(), before.begin(), before.end());
        }
        world.tree.precomputeTileNeighbors();
    }
    EXPECT_EQ(searched, loaded);
}

TYPED_TEST(Halo, weighs_the_border_against_the_fill_value)
{
    const World<TypeParam, float> world(randomSet<TypeParam>(12, 30, true), noise);
    constexpr int W = TypeParam::width, n = (W + 2) * (W + 2) * (W + 2);
    auto accessor = world.tree.tileAccessor();
    TileData<float, W, 1> plain(n), weighed(n);
    for (TreeIndex const& tile : someTiles(world.tree, 30))
        for (float weight : {0.0f, 0.5f, 1.0f, -2.0f}) {
            setHaloTile<TypeParam, float, 0, 1, 0, 0>(tile, *world.channel, kHaloLinear, kHaloAll, accessor, plain,
                                                      0.5f, 1.0f, kCorner);
            setHaloTile<TypeParam, float, 0, 1, 0, 0>(tile, *world.channel, kHaloLinear, kHaloAll, accessor, weighed,
                                                      0.5f, weight, kCorner);
            for (int k = -1; k <= W; ++k)
                for (int j = -1; j <= W; ++j)
                    for (int i = -1; i <= W; ++i) {
                        const bool inside = i >= 0 && i < W && j >= 0 && j < W && k >= 0 && k < W;
                        const float v = plain(i, j, k);
                        ASSERT_EQ(weighed(i, j, k), inside || weight == 1.0f ? v : 0.5f + weight * (v - 0.5f));
                    }
        }
}

/// Components of float3 are read like floats; a double keeps more than a float's digits.
TYPED_TEST(Halo, treats_every_component_of_a_vector_alike)
{
    const auto set = randomSet<TypeParam>(13, 30, true);
    const World<TypeParam, float> scalars(set, noise);
    const World<TypeParam, float3> vectors(set, noise);
    const World<TypeParam, double> doubles(set, noise);
    constexpr int W = TypeParam::width, n = (W + 2) * (W + 2) * (W + 2);
    TileData<float, W, 1> a(n);
    TileData<float3, W, 1> b(n);
    TileData<double, W, 1> c(n);
    auto oracle = doubles.oracle(noise, 7, false);
    for (TreeIndex const& tile : someTiles(scalars.tree, 40)) {
        auto accessor = scalars.tree.tileAccessor();
        setHaloTile<TypeParam, float, 0, 1, 0, 0>(tile, *scalars.channel, kHaloLinear, kHaloAll, accessor, a, kFill,
                                                  0.5f, kCorner);
        setHaloTile<TypeParam, float3, 0, 1, 0, 0>(tile, *vectors.channel, kHaloLinear, kHaloAll, accessor, b, kFill,
                                                   0.5f, kCorner);
        for (int e = 0; e < n; ++e) ASSERT_EQ(b(e), float3(a(e)));
        auto other = doubles.tree.tileAccessor();
        setHaloTile<TypeParam, double, 0, 1, 0, 0>(tile, *doubles.channel, kHaloLinear, kHaloAll, other, c, kFill, 1.0f,
                                                   kCorner);
        for (int k = -1; k <= W; ++k)
            for (int j = -1; j <= W; ++j)
                for (int i = -1; i <= W; ++i) {
                    const TileKey key = keyOf(doubles.tree.tile(tile));
                    const Expected e = expectedAt<TypeParam>(oracle, key, {i, j, k}, kHaloLinear, kHaloAll);
                    // Fractions are floats: halves are exact, fifths are off by half a unit of a float.
                    const double perMix = TypeParam::branching == 2 ? 1e-15 : 3 * 2 * kUnit;
                    ASSERT_NEAR(c(i, j, k), e.value, e.tolerance / kMixError * perMix);
                }
    }
}

template <class Tr, class T> std::string injectionFaults(TileSet<Tr> const& set, HaloMode mode)
{
    const VoxelFunction label = [](TileKey const& key, int i, int j, int k) {
        return std::floor(100 + 99 * noise(key, i, j, k));
    };
    const World<Tr, T> world(set, label);
    auto oracle = world.oracle(label, 0, false);
    oracle.outside = static_cast<double>(elementOf<T>(kFill));
    auto accessor = world.tree.tileAccessor();
    constexpr int W = Tr::width, n = W + 4;
    TileData<T, W, 2> out(n * n * n);
    std::string faults;
    for (TreeIndex const& tile : someTiles(world.tree, 20)) {
        setHaloTile<Tr, T, 0, 2, 0, 0>(tile, *world.channel, mode, kHaloAll, accessor, out, kFill, 0.25f, kCenter);
        for (int k = -2; k < W + 2; ++k)
            for (int j = -2; j < W + 2; ++j)
                for (int i = -2; i < W + 2; ++i) {
                    const Expected e =
                        expectedAt<Tr>(oracle, keyOf(world.tree.tile(tile)), {i, j, k}, kHaloInject, kHaloAll);
                    if (static_cast<double>(out(i, j, k)) != e.value) faults = "a value differs";
                }
    }
    return faults;
}

TYPED_TEST(Halo, injects_integers_in_the_linear_modes_too_and_saturates_their_fill_value)
{
    const auto set = randomSet<TypeParam>(14, 30, false);
    for (HaloMode mode : {kHaloInject, kHaloFromParent, kHaloLinear}) {
        EXPECT_EQ((injectionFaults<TypeParam, unsigned char>(set, mode)), "");
        EXPECT_EQ((injectionFaults<TypeParam, short>(set, mode)), "");
        EXPECT_EQ((injectionFaults<TypeParam, OST::uint64>(set, mode)), "");
    }
}

TYPED_TEST(Halo, of_the_root_alone_has_only_the_fill_value_around_it)
{
    TileSet<TypeParam> set;
    set.add({0, 0, 0}, 0);
    const World<TypeParam, float> root(set, noise);
    for (HaloMode mode : {kHaloSameDepth, kHaloInject, kHaloFromParent, kHaloLinear}) {
        auto oracle = root.oracle(noise, 7, false);
        EXPECT_EQ(faultsOfAllShapes(root, oracle, {0, 0}, mode, kHaloAll, 7), "");
    }
}

TYPED_TEST(Halo, of_a_tile_that_is_not_there_writes_nothing)
{
    const World<TypeParam, float> world(randomSet<TypeParam>(15, 10, false), noise);
    constexpr int W = TypeParam::width, D = TypeParam::maxDepth;
    auto accessor = world.tree.tileAccessor();
    TileData<float, W, 1> out((W + 2) * (W + 2) * (W + 2), kUntouched);
    for (TreeIndex tile : {TreeIndex{}, TreeIndex{world.tree.tileCount(D), D}, TreeIndex{0, D + 1}, TreeIndex{-1, 0}}) {
        setHaloTile<TypeParam, float, 0, 1, 0, 0>(tile, *world.channel, kHaloLinear, kHaloAll, accessor, out, 0.0f,
                                                  1.0f, kCorner);
        for (float v : out) ASSERT_EQ(v, kUntouched);
    }
    TileData<float, W, 1> none;
    setHaloTile<TypeParam, float, 0, 1, 0, 0>(TreeIndex{0, 0}, *world.channel, kHaloLinear, kHaloAll, accessor, none,
                                              0.0f, 1.0f, kCorner);
}

}  // namespace
}  // namespace tilegrid::test
