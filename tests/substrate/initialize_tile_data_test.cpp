#include "TilegridOps/substrate/child_values.h"
#include "TilegridOps/substrate/initialize_tile_data.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/restriction.h"
#include "TilegridOps/substrate/topology.h"
#include "support/address_channels.h"
#include "support/channel_types.h"
#include "support/jobs.h"
#include "support/site_oracle.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;

constexpr double kUnit = 1.0 / (1 << 24);
constexpr float kUnset = 77.0f;

/// A tree that was grown in steps, with lists of what came last.
template <class Tr> struct Grown {
    TileSet<Tr> set;
    Tree<Tr> tree{"tree"};
    TileList<Tr> added;

    explicit Grown(std::uint64_t seed, bool graded = true, int tiles = 30)
    {
        set = randomSet<Tr>(seed, tiles, graded);
        addAll(set, tree);
        Tree<Tr> more("more");
        const TileSet<Tr> moreTiles = randomSet<Tr>(seed + 1, tiles, graded);
        addAll(moreTiles, more);
        set.addAll(moreTiles);
        tree.refine(more, &added, true);
    }
    bool isNew(TileKey const& key) const
    {
        auto const& list = added[key.depth];
        return std::any_of(list.begin(), list.end(), [&key](int3 const& corner) { return toPlace(corner) == key.low; });
    }
};

/// The same value for every voxel that was there before, and the unset one in the new tiles.
template <class Tr> VoxelFunction unsetWhereNew(Grown<Tr> const& grown, VoxelFunction const& voxel)
{
    auto fresh = std::make_shared<std::set<TileKey>>();
    for (int d = 0; d < Tr::levels; ++d)
        for (int3 const& corner : grown.added[d]) fresh->insert({d, toPlace(corner)});
    return [fresh, voxel](TileKey const& key, int i, int j, int k) {
        return fresh->count(key) ? double(kUnset) : voxel(key, i, j, k);
    };
}

template <class Tr, class T> using Plain = Channel<Tr, T, Tr::width, 0>;

/// Puts a channel into an object, initialises its new tiles with the given type, and takes it out again.
template <class Tr, class C> C initialised(Grown<Tr> const& grown, C const& channel, int type, VoxelOffsetType offset = kCorner)
{
    OST::Object object;
    auto copy = Corvid::makeMutable<C>(channel);
    copy->setDataElementInitializerType(static_cast<DataElementInitializerType>(type));
    object.putComponent(std::move(copy));
    initializeTileData(grown.tree, grown.added, object, offset);
    return C(*object.component<C>(channel.name()));
}

template <class Tr> class InitializeTileData : public ::testing::Test {};
TYPED_TEST_SUITE(InitializeTileData, Structures, StructureNames);

TYPED_TEST(InitializeTileData, reproduces_a_linear_function)
{
    using Set = TileSet<TypeParam>;
    constexpr int W = TypeParam::width, D = TypeParam::maxDepth;
    // A block of tiles with a second block of finer ones, two depths at once, that do not reach its border.
    Grown<TypeParam> grown(0, true, 0);
    const TileKey centre = Set::keyAt({100, -200, 300}, D - 2);
    const auto addBlock = [&](Tree<TypeParam>& tree, int depth, int reach) {
        auto accessor = tree.tileAccessor();
        const int w = static_cast<int>(Set::tileWidth(depth));
        accessor.addTiles(toInt3(centre.low) - int3(reach * w), toInt3(centre.low) + int3(reach * w), depth);
    };
    addBlock(grown.tree, D - 2, 3);
    Tree<TypeParam> finer("finer");
    addBlock(finer, D, 2);
    grown.tree.refine(finer, &grown.added, true);
    ASSERT_GT(grown.added[D - 1].size(), 0u);
    for (VoxelOffsetType offset : {kCorner, kCenter, kEdgeY}) {
        SCOPED_TRACE("offset " + std::to_string(int(offset)));
        const auto linear = [&](TileKey const& key, int i, int j, int k) {
            const int voxel[3] = {i, j, k};
            double at[3];
            for (int a = 0; a < 3; ++a)
                at[a] = static_cast<double>(key.low[a] - centre.low[a])
                    + static_cast<double>(Set::voxelWidth(key.depth)) * (voxel[a] + (offset >> a & 1 ? 0.0 : 0.5));
            return 1 + 2 * at[0] - 3 * at[1] + 5 * at[2];
        };
        const auto channel = channelOf<Plain<TypeParam, float>>(grown.tree, unsetWhereNew(grown, linear), 0.0f);
        const auto result = initialised(grown, channel, kInitializeLinear, offset);
        double largest = 0, term = 0;
        for (int d = D - 1; d <= D; ++d)
            for (int3 const& corner : grown.added[d]) {
                const TileKey key{d, toPlace(corner)};
                const auto values = result.tileData(indexOf(grown.tree, key));
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i) {
                            largest = std::max(largest, std::abs(values(i, j, k) - linear(key, i, j, k)));
                            term = std::max(term,
                                            5.0 * std::abs(double(corner.z - centre.low[2]))
                                                + 5.0 * W * double(Set::voxelWidth(D - 1)));
                        }
            }
        EXPECT_LE(largest, 4 * std::exp2(std::floor(std::log2(term)) - 23));
    }
}

TYPED_TEST(InitializeTileData, takes_the_offset_from_the_topology_of_the_object)
{
    const Grown<TypeParam> grown(9);
    const auto start = channelOf<Plain<TypeParam, float>>(grown.tree, unsetWhereNew(grown, noise), 0.5f);
    for (VoxelOffsetType offset : {kCorner, kCenter}) {
        OST::Object object;
        auto topology = Corvid::makeMutable<VoxelTopology<TypeParam>>(Ostara::Geometry::sVoxelComp, offset);
        topology->update(grown.tree);
        object.putComponent(std::move(topology));
        auto copy = Corvid::makeMutable<Plain<TypeParam, float>>(start);
        copy->setDataElementInitializerType(kInitializeLinear);
        object.putComponent(std::move(copy));
        initializeTileData(grown.tree, grown.added, object);
        const auto told = initialised(grown, start, kInitializeLinear, offset);
        const auto found = object.component<Plain<TypeParam, float>>(start.name());
        for (int d = 0; d < TypeParam::levels; ++d)
            for (int64 n = 0; n < grown.tree.tileCount(d); ++n)
                ASSERT_EQ(std::memcmp(told.tileData(n, d).data(), found->tileData(n, d).data(), TypeParam::voxelCount * sizeof(float)), 0);
    }
}

TYPED_TEST(InitializeTileData, mixes_the_sites_of_the_depth_above_on_random_trees)
{
    constexpr int W = TypeParam::width;
    for (bool graded : {true, false}) {
        const Grown<TypeParam> grown(graded ? 3 : 5, graded);
        const auto start = channelOf<Plain<TypeParam, float>>(grown.tree, unsetWhereNew(grown, noise), 0.5f);
        // 2 is the linear one, and so is every type that has no meaning.
        for (int type : {2, 3, -1}) {
            const auto result = initialised(grown, start, type);
            std::map<TileKey, TreeIndex> index;
            for (int64 n = 0; n < grown.tree.tileCount(-1); ++n)
                index[keyOf(grown.tree.tile(n))] = grown.tree.tile(n).treeIndex();
            SiteOracle<TypeParam> oracle(grown.set);
            // Values of tiles above count as given: they were checked when their own turn came.
            oracle.voxel = [&](TileKey const& key, int i, int j, int k) {
                return double(result.tileData(index.at(key))(i, j, k));
            };
            oracle.outside = 0.5;
            int checked = 0;
            for (auto const& [key, tile] : index) {
                const auto values = result.tileData(tile);
                const bool isNew = grown.isNew(key);
                if (isNew && Random::mixed(checked++) % 4) continue;
                for (int e = 0; e < values.size(); ++e) {
                    const int3 v = cubeIndex(W, e);
                    if (!isNew || key.depth == 0) {
                        ASSERT_EQ(values(e), static_cast<float>(isNew ? kUnset : noise(key, v.x, v.y, v.z))) << key;
                        continue;
                    }
                    // The eight sites of the depth above around the voxel.
                    double expected = 0;
                    int levels = 0;
                    const std::int64_t w = TileSet<TypeParam>::voxelWidth(key.depth), above = w * TypeParam::branching;
                    for (int corner = 0; corner < 8; ++corner) {
                        Place site;
                        double weight = 1;
                        for (int a = 0; a < 3; ++a) {
                            const std::int64_t along = key.low[a] - TileSet<TypeParam>::rangeMin + v[a] * w;
                            const double f = double(along % above) / double(above);
                            weight *= corner >> a & 1 ? f : 1 - f;
                            site[a] = TileSet<TypeParam>::rangeMin + along / above * above + (corner >> a & 1) * above;
                        }
                        if (weight == 0) continue;
                        const auto found = oracle.at(site, key.depth - 1);
                        expected += weight * found.value;
                        levels = std::max(levels, found.levels);
                    }
                    // B - 1 steps per axis, each a rounded sum of a step whose rounding counts B - 1 times.
                    const double tolerance = 3 * 2 * (2 * TypeParam::branching + 2) * kUnit + levels * 22 * kUnit;
                    ASSERT_NEAR(values(e), expected, tolerance) << key << ", voxel " << e << ", type " << type;
                }
            }
        }
    }
}

TYPED_TEST(InitializeTileData, injects_integers_and_whatever_asks_for_it)
{
    constexpr int W = TypeParam::width, B = TypeParam::branching;
    const Grown<TypeParam> grown(7, false);
    const auto label = [](TileKey const& key, int i, int j, int k) {
        return std::floor(50 + 49 * noise(key, i, j, k));
    };
    const auto check = [&]<class T>(int type) {
        const auto start = channelOf<Plain<TypeParam, T>>(grown.tree, unsetWhereNew(grown, label), T());
        const auto result = initialised(grown, start, type);
        for (int64 n = 0; n < grown.tree.tileCount(-1); ++n) {
            auto const& tile = grown.tree.tile(n);
            if (!grown.isNew(keyOf(tile)) || tile.depth() == 0) continue;
            auto const& parent = grown.tree.tile(tile.parentTreeIndex());
            const int w = parent.voxelDataWidth();
            const auto own = result.tileData(tile.treeIndex()), from = result.tileData(parent.treeIndex());
            for (int e = 0; e < W * W * W; ++e) {
                const int3 place = tile.tijk() - parent.tijk() + (w / B) * cubeIndex(W, e);
                ASSERT_EQ(own(e), from(place.x / w, place.y / w, place.z / w)) << keyOf(tile);
            }
        }
    };
    check.template operator()<short>(1);
    check.template operator()<short>(2);
    check.template operator()<unsigned char>(9);
    check.template operator()<OST::int64>(2);
    check.template operator()<float>(1);
    check.template operator()<double>(1);
}

TYPED_TEST(InitializeTileData, leaves_type_0_old_tiles_and_tiles_without_a_valued_parent_alone)
{
    constexpr int D = TypeParam::maxDepth;
    const Grown<TypeParam> grown(9, false);
    const auto all = channelOf<Plain<TypeParam, float>>(grown.tree, unsetWhereNew(grown, noise), 0.0f);
    EXPECT_TRUE(bytesOf(initialised(grown, all, 0)) == bytesOf(all));
    for (int type : {1, 2}) {
        const auto cut =
            channelOf<Plain<TypeParam, float>>(grown.tree, unsetWhereNew(grown, noise), 0.0f, D - 2, D - 1);
        const auto result = initialised(grown, cut, type);
        for (int d : {D - 2, D - 1})
            for (int64 n = 0; n < grown.tree.tileCount(d); ++n) {
                const TileKey key = keyOf(grown.tree.tile(n, d));
                const auto before = cut.tileData(n, d), after = result.tileData(n, d);
                const bool same = std::equal(before.begin(), before.end(), after.begin());
                const bool valuedParent = d == D - 1 && !grown.isNew(TileSet<TypeParam>::parentOf(key));
                EXPECT_TRUE(same || (grown.isNew(key) && d == D - 1)) << key;
                EXPECT_FALSE(same && grown.isNew(key) && valuedParent) << key;
            }
    }
}

TYPED_TEST(InitializeTileData, called_twice_or_on_any_number_of_threads_gives_the_same_bytes)
{
    Grown<TypeParam> grown(11, true);
    growAll(grown.tree, SphereBand<TypeParam>(TypeParam::maxDepth, 6), &grown.added);
    const auto start = channelOf<Plain<TypeParam, float>>(grown.tree, noise, 0.0f);
    const auto once = initialised(grown, start, 2);
    EXPECT_FALSE(bytesOf(once) == bytesOf(start));
    EXPECT_TRUE(bytesOf(initialised(grown, once, 2)) == bytesOf(once));
    for (int threads : kThreadCounts) {
        std::vector<std::byte> bytes;
        pollsOf(threads, [&] { bytes = bytesOf(initialised(grown, start, 2)); });
        EXPECT_TRUE(bytes == bytesOf(once)) << threads << " threads";
    }
}

TYPED_TEST(InitializeTileData, passes_over_wrong_places_and_repeated_ones)
{
    Grown<TypeParam> grown(13, false);
    const auto start = channelOf<Plain<TypeParam, float>>(grown.tree, unsetWhereNew(grown, noise), 0.0f);
    const auto expected = initialised(grown, start, 2);
    const int far = 2147483647;
    for (int d = 0; d < TypeParam::levels; ++d) {
        const auto list = grown.added[d];
        for (int3 const& corner : list) grown.added[d].push_back(corner);
        for (int3 const& corner :
             {int3(far, 0, 0), int3(0, -far, 0), int3(5000, 5000, far), int3(77777, -77777, 123)}) {
            const auto index = std::as_const(grown.tree).tileAccessor().find(77777, -77777, 123, d);
            if (corner.z != 123 || index.depth != d) grown.added[d].push_back(corner);
        }
    }
    EXPECT_TRUE(bytesOf(initialised(grown, start, 2)) == bytesOf(expected));
}

TYPED_TEST(InitializeTileData, fills_all_layouts_but_not_their_halo)
{
    const Grown<TypeParam> grown(15, true, 6);
    const auto check = [&]<class C>() {
        using T = typename C::Element;
        const auto start = channelOf<C>(grown.tree, unsetWhereNew(grown, noise), elementOf<T>(9.0f));
        const auto plain = channelOf<Plain<TypeParam, T>>(grown.tree, unsetWhereNew(grown, noise), elementOf<T>(9.0f));
        const auto result = initialised(grown, start, 2), expected = initialised(grown, plain, 2);
        bool same = true;
        constexpr int W = TypeParam::width, low = -C::halo, high = C::voxels + C::halo;
        for (int64 n = 0; n < expected.tileCount(-1); ++n) {
            const auto a = result.tileData(n), b = expected.tileData(n), before = start.tileData(n);
            for (int k = low; k < high; ++k)
                for (int j = low; j < high; ++j)
                    for (int i = low; i < high; ++i) {
                        const bool inside = std::min({i, j, k}) >= 0 && std::max({i, j, k}) < W;
                        same = same && sameBytes(a(i, j, k), inside ? b(i, j, k) : before(i, j, k));
                    }
        }
        EXPECT_TRUE(same) << channelTypeName<C>();
    };
    const auto checkLayouts = [&]<class... Ts>(TypeList<Ts...>) { (detail::forEachLayout<TypeParam, Ts>(check), ...); };
    checkLayouts(
        TypeList<float, Ostara::Math::float4x2, Ostara::Math::double3, signed char, Ostara::Math::int3, OST::uint64>());
}

TYPED_TEST(InitializeTileData, can_be_cancelled)
{
    Grown<TypeParam> grown(17, true);
    growAll(grown.tree, SphereBand<TypeParam>(TypeParam::maxDepth, 15), &grown.added);
    const auto start = channelOf<Plain<TypeParam, float>>(grown.tree, noise, 0.0f);
    cancelAtEveryPoll([] {}, [&] { initialised(grown, start, 2); }, [] {});
}

// Values of children

template <class Tr> class ChildValues : public ::testing::Test {};
TYPED_TEST_SUITE(ChildValues, Structures, StructureNames);

/// The value that a voxel must have: its own, or by offset that of its children, theirs first.
template <class Tr>
double fromChildren(TileSet<Tr> const& set, TileKey const& tile, int3 const& v, int offset, int low, int high)
{
    using Set = TileSet<Tr>;
    constexpr int r = Tr::cellVoxels, B = Tr::branching;
    const int cell = v.x / r + B * (v.y / r) + B * B * (v.z / r);
    if (tile.depth < low || tile.depth > high || tile.depth == Tr::maxDepth || !set.has(Set::childOf(tile, cell)))
        return noise(tile, v.x, v.y, v.z);
    const TileKey child = Set::childOf(tile, cell);
    double sum = 0;
    int count = 0;
    for (int n = 0; n < B * B * B; ++n) {
        const int3 step(n % B, n / B % B, n / (B * B));
        bool taken = true;
        int3 at;
        for (int a = 0; a < 3; ++a) {
            taken = taken && (step[a] == 0 || !(offset >> a & 1));
            at[a] = v[a] % r * B + step[a];
        }
        if (!taken) continue;
        sum += fromChildren(set, child, at, offset, low, high);
        ++count;
    }
    return sum / count;
}

TYPED_TEST(ChildValues, come_up_from_the_finest_depth_by_the_offset_of_each_axis)
{
    constexpr int D = TypeParam::maxDepth;
    const auto set = randomSet<TypeParam>(21, 20, false);
    Tree<TypeParam> tree("tree");
    addAll(set, tree);
    for (int offset = 0; offset < 8; ++offset)
        for (auto [low, high] : {std::pair{0, D}, {D - 2, D - 1}, {3, 2}}) {
            auto channel = channelOf<Plain<TypeParam, float>>(tree, noise, 0.0f);
            setNonLeafValueToChildValue<TypeParam, float, TypeParam::width, 0>(
                channel, tree, static_cast<VoxelOffsetType>(offset), low, high);
            for (int64 n = 0; n < tree.tileCount(-1); ++n) {
                auto const& tile = tree.tile(n);
                // Means of means on the way from the finest depth cost a factor each without memory; a few depths show all.
                if (offset != 7 && tile.depth() < D - (offset == 0 ? 1 : 2)) continue;
                for (int e = 0; e < TypeParam::voxelCount; ++e) {
                    const double expected =
                        fromChildren<TypeParam>(set, keyOf(tile), cubeIndex(TypeParam::width, e), offset, low, high);
                    // Each mean is rounded once.
                    ASSERT_NEAR(channel.tileData(tile.treeIndex())(e), expected, offset == 7 ? 0 : 3 * kUnit)
                        << keyOf(tile);
                }
            }
        }
}

TYPED_TEST(ChildValues, keep_to_the_depths_of_the_channel_and_to_the_interior_of_its_tiles)
{
    constexpr int D = TypeParam::maxDepth, W = TypeParam::width;
    const auto set = randomSet<TypeParam>(23, 20, false);
    Tree<TypeParam> tree("tree");
    addAll(set, tree);
    auto channel = channelOf<Channel<TypeParam, double, W, 1>>(tree, noise, 0.25, D - 3, D - 1);
    setNonLeafValueToChildValue<TypeParam, double, W, 1>(channel, tree, kCorner, 0, D);
    for (int d = D - 3; d < D; ++d)
        for (int64 n = 0; n < tree.tileCount(d); ++n) {
            const auto values = channel.tileData(n, d);
            for (int k = -1; k <= W; ++k)
                for (int j = -1; j <= W; ++j)
                    for (int i = -1; i <= W; ++i) {
                        const bool inside = std::min({i, j, k}) >= 0 && std::max({i, j, k}) < W;
                        const TileKey key = keyOf(tree.tile(n, d));
                        ASSERT_EQ(values(i, j, k),
                                  inside ? fromChildren<TypeParam>(set, key, int3(i, j, k), 7, 0, D - 2) : 0.25);
                    }
        }
}

TYPED_TEST(ChildValues, of_integers_are_never_averaged_and_constants_stay)
{
    constexpr int W = TypeParam::width;
    const auto set = randomSet<TypeParam>(25, 20, true);
    Tree<TypeParam> tree("tree");
    addAll(set, tree);
    const auto label = [](TileKey const& key, int i, int j, int k) {
        return std::floor(100 + 99 * noise(key, i, j, k));
    };
    auto a = channelOf<Plain<TypeParam, int>>(tree, label, 0), b = a;
    setNonLeafValueToChildValue<TypeParam, int, W, 0>(a, tree, kCorner, 0, TypeParam::maxDepth);
    setNonLeafValueToChildValue<TypeParam, int, W, 0>(b, tree, kCenter, 0, TypeParam::maxDepth);
    EXPECT_TRUE(bytesOf(a) == bytesOf(b));
    const auto constant = [](TileKey const&, int, int, int) { return 0.1; };
    auto c = channelOf<Plain<TypeParam, float>>(tree, constant, 0.0f);
    const auto before = bytesOf(c);
    setNonLeafValueToChildValue<TypeParam, float, W, 0>(c, tree, kCenter, 0, TypeParam::maxDepth);
    EXPECT_TRUE(bytesOf(c) == before);
}

TYPED_TEST(ChildValues, are_the_same_for_any_number_of_threads)
{
    Tree<TypeParam> tree("tree");
    tree.tileAccessor().addTile(0, 0, 0, 0);
    growAll(tree, SphereBand<TypeParam>(TypeParam::maxDepth, 6));
    std::vector<std::vector<std::byte>> results;
    for (int threads : kThreadCounts)
        pollsOf(threads, [&] {
            auto channel = channelOf<Plain<TypeParam, float>>(tree, noise, 0.0f);
            setNonLeafValueToChildValue<TypeParam, float, TypeParam::width, 0>(channel, tree, kCenter, 0,
                                                                               TypeParam::maxDepth);
            results.push_back(bytesOf(channel));
        });
    EXPECT_TRUE(results[0] == results[1] && results[0] == results[2]);
}

TEST(RestrictionStencil, sums_to_one_is_a_product_and_keeps_linear_functions)
{
    auto const& s = Numerics::restrictionStencilOffsetCorner;
    const float line[3] = {0.25f, 0.5f, 0.25f};
    float sum = 0, x = 0, y = 0, z = 0;
    for (int k = 0; k < 3; ++k)
        for (int j = 0; j < 3; ++j)
            for (int i = 0; i < 3; ++i) {
                EXPECT_EQ(s[k][j][i], line[k] * line[j] * line[i]);
                sum += s[k][j][i];
                x += s[k][j][i] * static_cast<float>(i - 1);
                y += s[k][j][i] * static_cast<float>(j - 1);
                z += s[k][j][i] * static_cast<float>(k - 1);
            }
    EXPECT_EQ(sum, 1.0f);
    EXPECT_EQ(x, 0.0f);
    EXPECT_EQ(y, 0.0f);
    EXPECT_EQ(z, 0.0f);
}

}  // namespace
}  // namespace tilegrid::test
