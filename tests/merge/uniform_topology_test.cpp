#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "merge_volumes.h"

namespace tilegrid::test {
namespace {

template <class Tr> class UniformTopology : public ::testing::Test {};
TYPED_TEST_SUITE(UniformTopology, Structures, StructureNames);

/// A volume with random tiles near the origin, without properties.
template <class Tr> HostPtr randomTiles(std::uint64_t seed, TileSet<Tr>& set, float voxelSize)
{
    Random random(seed);
    return hostVolume(nativeVolume<Tr>([&](Tree<Tr>& tree) { addRandomTiles<Tr>(random, tree, set, 40); }, voxelSize));
}

template <class Tr> HostPtr oneTile(int3 const& place, int depth, float voxelSize)
{
    return hostVolume(nativeVolume<Tr>([&](Tree<Tr>& tree) { tree.tileAccessor().addTile(place.x, place.y, place.z, depth); }, voxelSize));
}

template <class Tr> int deepestOf(HostPtr const& volume) { return treeIn<Tr>(volume)->deepestDepth(); }

TYPED_TEST(UniformTopology, of_equal_lattices_is_the_exact_union_of_tiles)
{
    for (std::uint64_t seed = 1; seed <= 5; ++seed) {
        TileSet<TypeParam> a, b;
        const HostPtr first = randomTiles<TypeParam>(seed, a, 0.1f), second = randomTiles<TypeParam>(seed + 100, b, 0.1f);
        a.addAll(b);
        EXPECT_EQ(differences(*treeIn<TypeParam>(merge({first, second})), a), "") << "seed " << seed;
    }
}

TYPED_TEST(UniformTopology, covers_what_the_inputs_cover_whatever_their_voxel_size_and_structure)
{
    using Other = std::conditional_t<TypeParam::branching == 2, QuinaryTraits, BinaryTraits>;
    const auto covers = []<class In>(HostPtr const& source, HostPtr const& result) {
        const auto from = treeIn<In>(source);
        const auto binary = treeIn<BinaryTraits>(result);
        const auto quinary = treeIn<QuinaryTraits>(result);
        const double h = binary ? binary->voxelSize() : quinary->voxelSize();
        int missed = 0;
        for (OST::int64 n = 0; n < from->tileCount(In::maxDepth); ++n) {
            auto const& tile = from->tile(n, In::maxDepth);
            // The low corners of its voxels; the far half voxel may be left to the next tile.
            for (int flat = 0; flat < In::voxelCount; ++flat) {
                const int3 place = tile.tijk() + OST::TileTree3D::cubeIndex(In::width, flat);
                int3 at;
                for (int a = 0; a < 3; ++a) at[a] = static_cast<int>(double(place[a]) * from->voxelSize() / h);
                const int depth = binary ? binary->find(at.x, at.y, at.z, 28).depth : quinary->find(at.x, at.y, at.z, 12).depth;
                const double width = binary ? BinaryTraits::voxelDataWidth(depth) : QuinaryTraits::voxelDataWidth(depth);
                missed += !(width * h <= double(from->voxelSize()) * 1.0001);
            }
        }
        return missed;
    };
    const HostPtr fine = hostVolume(levelSetAround<TypeParam>(sphere({0, 0, 0}, 1.0), 0.1f));
    for (float size : {0.13f, 0.2f, 0.5f, 3.0f}) {
        const HostPtr same = hostVolume(levelSetAround<TypeParam>(sphere({30, -40, 20}, 20.0 * size), size));
        const HostPtr other = hostVolume(levelSetAround<Other>(sphere({30, -40, 20}, 20.0 * size), size));
        for (HostPtr const& result : {merge({fine, same, other}), merge({other, same, fine})}) {
            EXPECT_EQ((covers.template operator()<TypeParam>(fine, result)), 0);
            EXPECT_EQ((covers.template operator()<TypeParam>(same, result)), 0) << size;
            EXPECT_EQ((covers.template operator()<Other>(other, result)), 0) << size;
        }
    }
}

TEST(UniformTopologyDepths, follow_the_ratio_of_voxel_sizes)
{
    // 0.1 into 0.05: the empty neighbour only sets the size.
    const HostPtr coarse = oneTile<BinaryTraits>({40, 40, 40}, 28, 0.1f), finer = oneTile<BinaryTraits>({0, 0, 0}, 0, 0.05f);
    const HostPtr result = merge({coarse, finer});
    EXPECT_EQ(treeIn<BinaryTraits>(result)->voxelSize(), 0.05f);
    EXPECT_EQ(deepestOf<BinaryTraits>(result), 27);
    EXPECT_TRUE((tilesOf<BinaryTraits>(result).count(TileKey{27, {80, 80, 80}})));
    EXPECT_EQ(treeIn<BinaryTraits>(result)->tileCount(27), 1);
    // Exact powers of the base are found in either structure.
    for (int level = 0; level <= 10; ++level) {
        const float ratio = std::ldexp(1.0f, level);
        EXPECT_EQ(deepestOf<BinaryTraits>(merge({oneTile<BinaryTraits>({40, 40, 40}, 28, ratio), oneTile<BinaryTraits>({0, 0, 0}, 0, 1.0f)})), 28 - level);
    }
    float ratio = 1.0f;
    for (int level = 0; level <= 6; ++level, ratio *= 5.0f) {
        const HostPtr merged = merge({oneTile<QuinaryTraits>({40, 40, 40}, 12, ratio), oneTile<QuinaryTraits>({0, 0, 0}, 0, 1.0f)});
        EXPECT_EQ(deepestOf<QuinaryTraits>(merged), 12 - level) << ratio;
    }
}

TEST(UniformTopologyDepths, of_finer_tiles_end_at_the_finest)
{
    // A finer input in a coarser result: adaptive without level sets, with the result's voxels scaled up.
    MergeCase c;
    c.adaptive = true;
    c.scale = 2.0f;
    const HostPtr fine = oneTile<BinaryTraits>({40, 40, 40}, 28, 0.05f);
    const HostPtr result = merge({fine, fine}, c);
    EXPECT_EQ(treeIn<BinaryTraits>(result)->voxelSize(), 0.1f);
    EXPECT_EQ(deepestOf<BinaryTraits>(result), 28);
    EXPECT_TRUE((tilesOf<BinaryTraits>(result).count(TileKey{28, {20, 20, 20}})));
}

TYPED_TEST(UniformTopology, of_sizes_a_thousand_times_apart_has_tiles_for_each_at_its_own_depth)
{
    const HostPtr fine = hostVolume(levelSetAround<TypeParam>(sphere({0, 0, 0}, 0.01), 0.001f));
    const HostPtr coarse = hostVolume(levelSetAround<TypeParam>(sphere({0, 0, 0}, 10.0), 1.0f));
    const HostPtr result = merge({coarse, fine});
    const auto tiles = treeIn<TypeParam>(result)->tileCount(-1);
    EXPECT_LT(tiles, 40 * (treeIn<TypeParam>(fine)->tileCount(-1) + treeIn<TypeParam>(coarse)->tileCount(-1)));
    EXPECT_EQ(treeIn<TypeParam>(result)->voxelSize(), 0.001f);
    EXPECT_TRUE(checkTree(*treeIn<TypeParam>(result)).empty());
}

TYPED_TEST(UniformTopology, of_volumes_without_tiles_is_that_of_the_others)
{
    TileSet<TypeParam> set;
    const HostPtr full = randomTiles<TypeParam>(3, set, 0.5f), empty = hostVolume(nativeVolume<TypeParam>([](Tree<TypeParam>&) {}, 0.5f));
    EXPECT_EQ(differences(*treeIn<TypeParam>(merge({empty, full})), set), "");
    EXPECT_EQ(differences(*treeIn<TypeParam>(merge({full, empty, empty})), set), "");
    EXPECT_EQ(treeIn<TypeParam>(merge({empty, empty}))->tileCount(-1), 0);
}

/// A linear function, read back exactly wherever the volume has voxels around a place.
template <class In, class Out> void checkOffset(VoxelOffsetType offset, float size, Interpolation interpolation)
{
    const auto linear = [](World const& p) { return 2 * p[0] - 3 * p[1] + 0.5 * p[2] + 1; };
    auto native = OST::TileTree3D::Command::createVoxelOST<In>(sVoxelTileTree, sVoxelComp, size, offset);
    auto tree = native->template extractComponent<Tree<In>>(sVoxelTileTree);
    auto topology = native->template extractComponent<VoxelTopology<In>>(sVoxelComp);
    tree->tileAccessor().addTiles({-9, -9, -9}, {9, 9, 9}, In::maxDepth);
    topology->update(*tree);
    native->putComponent(std::move(topology));
    native->putComponent(std::move(tree));
    // Few depths: coarser ones are not read where values are compared, and their halos would take long to make.
    addChannel<Plain<In>>(*native, "p", 0.0f,
                          [&](TileKey const& key, int flat) { return float(linear(placeOf<In>(key, flat, size, offset))); },
                          In::maxDepth - 2);
    const HostPtr input = hostVolume(std::move(native));
    const HostPtr lattice = oneTile<Out>({0, 0, 0}, Out::maxDepth, 0.25f);
    MergeCase c;
    c.interpolation = interpolation;
    c.structure = Out::branching == 2 ? AutoSubdivisionStructure::kBinary : AutoSubdivisionStructure::kQuinary;
    const HostPtr result = merge({input, lattice}, c);
    EXPECT_EQ(result->native()->template component<VoxelTopology<Out>>(sVoxelComp)->offsetType(), OST::TileTree3D::kCorner);
    const float h = treeIn<Out>(result)->voxelSize();
    int compared = 0;
    for (auto const& [key, values] : valuesByTile<Out>(result, "p"))
        for (int flat = 0; flat < Out::voxelCount; ++flat) {
            const World p = placeOf<Out>(key, flat, h, 7);
            bool inside = true;
            for (double x : p) inside = inside && std::abs(x) < 7 * double(size);
            if (!inside) continue;
            ++compared;
            // Eight products of numbers below 32.
            EXPECT_NEAR(values[std::size_t(flat)], linear(p), 32 * 8 * 1.2e-7) << "offset " << offset << " in " << key << " voxel " << flat;
        }
    EXPECT_GT(compared, 500) << offset;
}

TYPED_TEST(UniformTopology, reads_inputs_of_all_eight_sample_offsets_where_their_samples_lie)
{
    for (int offset = 0; offset < 8; ++offset)
        for (float size : {0.25f, 0.3125f})
            for (auto interpolation : {Interpolation::kLinear, Interpolation::kCubicC1}) {
                checkOffset<TypeParam, BinaryTraits>(VoxelOffsetType(offset), size, interpolation);
                checkOffset<TypeParam, QuinaryTraits>(VoxelOffsetType(offset), size, interpolation);
            }
}

}  // namespace
}  // namespace tilegrid::test
