// The level layout of .vdb files: what comes back, and what is refused.
#include "io/error.h"
#include "io/vdb.h"
#include "support/files.h"
#include "support/level_sets.h"
#include "support/meshes.h"
#include "support/structures.h"
#include "support/volumes.h"

#include <openvdb/openvdb.h>

#include <bit>
#include <limits>
#include <map>
#include <set>

namespace tilegrid::test {
namespace {

using io::InputError;
using io::readVdb;
using io::VdbLayout;
using io::writeVdb;
using Ostara::Geometry::sVoxelSignedDistance;
using Ostara::Math::double3;
using Ostara::Math::float3;
using namespace OST::TileTree3D;

// --- what volumes hold, by place

using TileBytes = std::map<TileKey, std::string>;

/// The bytes of every tile of a channel, by place and depth.
template <class Tr, class T> TileBytes bytesOf(Native const& volume, Corvid::String const& name)
{
    TileBytes bytes;
    const auto tree = test::treeOf<Tr>(volume);
    const auto channel = volume.component<Channel<Tr, T, Tr::width, 0>>(name);
    if (!channel) return bytes;
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
            if (const auto data = std::as_const(*channel).tileData(n, depth))
                bytes[keyOf(tree->tile(n, depth))] =
                    std::string(reinterpret_cast<char const*>(data.data()), Tr::voxelCount * sizeof(T));
    return bytes;
}

template <class Tr, class T>
void expectSame(Native const& written, Native const& read, Corvid::String const& name)
{
    SCOPED_TRACE(name.str());
    using C = Channel<Tr, T, Tr::width, 0>;
    const auto a = written.component<C>(name), b = read.component<C>(name);
    ASSERT_TRUE(a && b);
    EXPECT_TRUE((bytesOf<Tr, T>(written, name) == bytesOf<Tr, T>(read, name)));
    EXPECT_EQ(std::memcmp(a->defaultBytes(), b->defaultBytes(), sizeof(T)), 0);
    EXPECT_EQ(a->dataElementInitializerType(), b->dataElementInitializerType());
    EXPECT_EQ(a->minDepth(), b->minDepth());
    EXPECT_EQ(a->depth(), b->depth());
}

template <class Tr> std::set<TileKey> tilesOf(Native const& volume)
{
    std::set<TileKey> tiles;
    for (auto const& depth : orderOf(*test::treeOf<Tr>(volume))) tiles.insert(depth.begin(), depth.end());
    return tiles;
}

/// Values of all kinds but NaN: infinities, denormals and both zeros among them.
template <class T> T anyBits(Random& random)
{
    if constexpr (std::is_same_v<T, float> || std::is_same_v<T, double>) {
        using Bits = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
        const T value = std::bit_cast<T>(static_cast<Bits>(random.next()));
        if (random.oneIn(8)) return random.oneIn(2) ? T(-0.0) : std::numeric_limits<T>::infinity();
        return value == value ? value : T(1);
    } else if constexpr (std::is_integral_v<T>) {
        return static_cast<T>(random.next());
    } else {
        using S = std::decay_t<decltype(T().x)>;
        const S x = anyBits<S>(random), y = anyBits<S>(random), z = anyBits<S>(random);
        return T(x, y, z);
    }
}

template <class Tr, class T>
void addAny(Native& volume, Random& random, char const* name, int minDepth = 0, int depth = Tr::maxDepth,
            DataElementInitializerType initializer = kInitializeLinear)
{
    using C = Channel<Tr, T, Tr::width, 0>;
    test::addChannel<C>(volume, name, anyBits<T>(random), [&](TileKey const&, int) { return anyBits<T>(random); },
                        minDepth, depth);
    auto channel = volume.extractComponent<C>(name);
    channel->setDataElementInitializerType(initializer);
    volume.putComponent(std::move(channel));
}

/// A random adaptive tree with six properties, two of them over some depths only.
template <class Tr> HostPtr randomVolume(std::uint64_t seed)
{
    Random random(seed);
    TileSet<Tr> set;
    auto native =
        nativeVolume<Tr>([&](Tree<Tr>& tree) { addRandomTiles<Tr>(random, tree, set, 40); }, 0.1f * float(seed));
    auto tree = native->template extractComponent<Tree<Tr>>(sVoxelTileTree);
    tree->setMaxRelativeRefinementError(0.3f);
    native->putComponent(std::move(tree));
    addAny<Tr, float>(*native, random, "a");
    addAny<Tr, double>(*native, random, "b", 0, Tr::maxDepth, kInitializeInject);
    addAny<Tr, float3>(*native, random, "c", 3, Tr::maxDepth - 1);
    addAny<Tr, double3>(*native, random, "d");
    addAny<Tr, int>(*native, random, "e", 2, 2, kInitializeNone);
    addAny<Tr, OST::int64>(*native, random, "f");
    return hostVolume(std::move(native));
}

template <class Tr> class LevelFiles : public ::testing::Test {};
TYPED_TEST_SUITE(LevelFiles, Structures, StructureNames);

/// Reads the one volume of a file; no message may come, but for values above children if those are not in step.
HostPtr readBack(std::string const& path, io::VdbOptions const& options = {}, bool inStep = true)
{
    KeptMessages messages;
    const auto volumes = readVdb(path, options, messages.services());
    EXPECT_EQ(volumes.size(), 1u);
    EXPECT_EQ(messages.texts().empty(), inStep);
    for (std::string const& text : messages.texts()) EXPECT_TRUE(contains(text, "voxels above children")) << text;
    return volumes.front().volume;
}

TYPED_TEST(LevelFiles, restore_random_adaptive_volumes_bit_for_bit)
{
    using Tr = TypeParam;
    for (std::uint64_t seed = 1; seed <= 3; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const TestFolder folder;
        const HostPtr written = randomVolume<Tr>(seed);
        writeVdb(folder.file("a.vdb"), *written, {}, VdbLayout::kLevels);
        const HostPtr read = readBack(folder.file("a.vdb"), {}, /*inStep*/ false);
        Native const &a = *written->native(), &b = *read->native();
        ASSERT_TRUE(test::treeOf<Tr>(b));
        EXPECT_TRUE(tilesOf<Tr>(a) == tilesOf<Tr>(b));
        EXPECT_TRUE(checkTree(*test::treeOf<Tr>(b)).empty());
        EXPECT_EQ(test::treeOf<Tr>(a)->voxelSize(), test::treeOf<Tr>(b)->voxelSize());
        EXPECT_EQ(test::treeOf<Tr>(b)->maxRelativeRefinementError(), 0.3f);
        EXPECT_EQ(a.componentRange().size(), b.componentRange().size());
        expectSame<Tr, float>(a, b, "a");
        expectSame<Tr, double>(a, b, "b");
        expectSame<Tr, float3>(a, b, "c");
        expectSame<Tr, double3>(a, b, "d");
        expectSame<Tr, int>(a, b, "e");
        expectSame<Tr, OST::int64>(a, b, "f");
        writeVdb(folder.file("b.vdb"), *read, {}, VdbLayout::kLevels);
        EXPECT_EQ(folder.read("a.vdb"), folder.read("b.vdb"));
    }
}

TYPED_TEST(LevelFiles, keep_tiles_that_no_property_covers_and_properties_that_cover_no_tile)
{
    using Tr = TypeParam;
    const TestFolder folder;
    Random random(5);
    for (const bool covered : {false, true}) {
        auto native = nativeVolume<Tr>([](Tree<Tr>& tree) { tree.tileAccessor().addTile(0, 0, 0, 4); });
        if (covered) addAny<Tr, float>(*native, random, "fine", 6, 7);
        const HostPtr written = hostVolume(std::move(native));
        writeVdb(folder.file("a.vdb"), *written, {}, VdbLayout::kLevels);
        const HostPtr read = readBack(folder.file("a.vdb"));
        EXPECT_TRUE(tilesOf<Tr>(*written->native()) == tilesOf<Tr>(*read->native()));
        if (covered) expectSame<Tr, float>(*written->native(), *read->native(), "fine");
        EXPECT_EQ(read->native()->componentRange().size(), written->native()->componentRange().size());
    }
}

TYPED_TEST(LevelFiles, keep_where_samples_lie)
{
    using Tr = TypeParam;
    const TestFolder folder;
    for (int offset = 0; offset < 8; ++offset) {
        auto native = Command::createVoxelOST<Tr>(sVoxelTileTree, sVoxelComp, 0.3f, VoxelOffsetType(offset));
        auto tree = native->template extractComponent<Tree<Tr>>(sVoxelTileTree);
        auto topology = native->template extractComponent<VoxelTopology<Tr>>(sVoxelComp);
        tree->tileAccessor().addTile(-70, 5, 9, Tr::maxDepth - 2);
        topology->update(*tree);
        native->putComponent(std::move(tree));
        native->putComponent(std::move(topology));
        writeVdb(folder.file("a.vdb"), *hostVolume(std::move(native)), {}, VdbLayout::kLevels);
        const HostPtr read = readBack(folder.file("a.vdb"));
        EXPECT_EQ(read->native()->template component<VoxelTopology<Tr>>(sVoxelComp)->offsetType(), offset);
    }
}

TYPED_TEST(LevelFiles, keep_level_sets_whatever_structure_is_asked_for)
{
    using Tr = TypeParam;
    const TestFolder folder;
    const HostPtr written = levelSetOf<Tr>(sphereMesh(1.0f, 3, {0.2f, 0.1f, 0.0f}), 0.1f);
    writeVdb(folder.file("a.vdb"), *written, {}, VdbLayout::kLevels);
    io::VdbOptions other;
    other.structure = Tr::branching == 2 ? io::Structure::kQuinary : io::Structure::kBinary;
    const HostPtr read = readBack(folder.file("a.vdb"), other);
    for (int depth = 0; depth <= Tr::maxDepth; ++depth) EXPECT_EQ(differencesAt<Tr>(depth, *written, *read), "");
    EXPECT_TRUE(Ostara::Object::isA(*read, *Ostara::Geometry::getLevelSetPrototype()));
}

TYPED_TEST(LevelFiles, respect_the_memory_limit)
{
    const TestFolder folder;
    const HostPtr volume = levelSetOf<TypeParam>(sphereMesh(1.0f, 3), 0.1f);
    writeVdb(folder.file("a.vdb"), *volume, {}, VdbLayout::kLevels);
    io::VdbOptions options;
    options.maxBytes = 1 << 16;
    EXPECT_TRUE(contains(errorOf<InputError>([&] { readVdb(folder.file("a.vdb"), options, {}); }), "raise the limit"));
    options.maxBytes = 1 << 28;
    readBack(folder.file("a.vdb"), options);
}

// --- edited files

using Grids = std::vector<openvdb::GridBase::Ptr>;
using Edit = std::function<void(Grids&)>;

/// What the reader says to a file after an edit.
std::string answerTo(TestFolder const& folder, Edit const& edit)
{
    Grids grids;
    {
        openvdb::io::File file(folder.file("a.vdb"));
        file.open(/*delayLoad*/ false);
        const auto all = file.getGrids();
        grids.assign(all->begin(), all->end());
        file.close();
    }
    edit(grids);
    openvdb::io::File file(folder.file("edited.vdb"));
    file.write(openvdb::GridCPtrVec(grids.begin(), grids.end()));
    file.close();
    return errorOf<InputError>([&] { readVdb(folder.file("edited.vdb"), {}, {}); });
}

/// The grid of a property (empty: any) of the deepest depth, or `above` depths above that.
openvdb::GridBase& gridOf(Grids const& grids, std::string const& property, int above = 0)
{
    const auto depthOf = [](openvdb::GridBase const& grid) { return grid.metaValue<std::int32_t>("tilegrid_depth"); };
    int deepest = 0;
    for (auto const& grid : grids) deepest = std::max(deepest, depthOf(*grid));
    for (auto const& grid : grids)
        if (depthOf(*grid) == deepest - above && grid->metaValue<std::string>("tilegrid_property") == property)
            return *grid;
    throw std::runtime_error("no such grid");
}
openvdb::FloatGrid& floats(Grids const& grids, int above = 0)
{
    return static_cast<openvdb::FloatGrid&>(gridOf(grids, "density", above));
}
openvdb::Coord firstActive(openvdb::FloatGrid const& grid) { return grid.tree().cbeginValueOn().getCoord(); }

template <class Tr> class EditedLevelFiles : public ::testing::Test {
protected:
    static constexpr int W = Tr::width;

    EditedLevelFiles()
    {
        auto native = nativeVolume<Tr>([](Tree<Tr>& tree) {
            // Two tiles of the finest depth side by side; their parents are one tile or two.
            auto accessor = tree.tileAccessor();
            accessor.addTile(0, 0, 0, Tr::maxDepth);
            accessor.addTile(Tr::width, 0, 0, Tr::maxDepth);
            accessor.addTile(5000, 0, 0, Tr::maxDepth - 1);
        });
        const auto one = [](TileKey const&, int flat) { return float(flat); };
        test::addChannel<Channel<Tr, float, W, 0>>(*native, "density", 0.0f, one);
        test::addChannel<Channel<Tr, int, W, 0>>(*native, "id", 7, [](TileKey const&, int flat) { return flat; });
        writeVdb(folder_.file("a.vdb"), *hostVolume(std::move(native)), {}, VdbLayout::kLevels);
    }
    std::string answer(Edit const& edit) const { return answerTo(folder_, edit); }
    void expectRefused(std::string const& what, Edit const& edit) const
    {
        const std::string text = answer(edit);
        EXPECT_TRUE(contains(text, what)) << "expected '" << what << "' in: " << text;
        EXPECT_TRUE(contains(text, "edited.vdb")) << text;
    }
    TestFolder folder_;
};
TYPED_TEST_SUITE(EditedLevelFiles, Structures, StructureNames);

TYPED_TEST(EditedLevelFiles, without_metadata_are_refused)
{
    for (char const* key : {"tilegrid_structure", "tilegrid_voxel_size", "tilegrid_offset",
                            "tilegrid_max_relative_refinement_error", "tilegrid_depth", "tilegrid_tiles",
                            "tilegrid_property", "tilegrid_default", "tilegrid_initializer", "tilegrid_min_depth",
                            "tilegrid_max_depth", "tilegrid_levels_version"})
        for (char const* property : {"density", "id"}) {
            this->expectRefused(key, [&](Grids& grids) { gridOf(grids, property).removeMeta(key); });
            this->expectRefused(key, [&](Grids& grids) {
                openvdb::GridBase& grid = gridOf(grids, property);
                grid.removeMeta(key);
                grid.insertMeta(key, openvdb::Vec2DMetadata({1, 2}));
            });
        }
}

TYPED_TEST(EditedLevelFiles, with_absurd_metadata_are_refused)
{
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const auto setAll = [](char const* key, openvdb::Metadata const& value) {
        return [key, copy = value.copy()](Grids& grids) {
            for (auto const& grid : grids) {
                grid->removeMeta(key);
                grid->insertMeta(key, *copy);
            }
        };
    };
    const auto set = [](char const* key, openvdb::Metadata const& value) {
        return [key, copy = value.copy()](Grids& grids) {
            openvdb::GridBase& grid = gridOf(grids, "density");
            grid.removeMeta(key);
            grid.insertMeta(key, *copy);
        };
    };
    for (const float size : {0.0f, -1.0f, nan, inf})
        this->expectRefused("voxel size", setAll("tilegrid_voxel_size", openvdb::FloatMetadata(size)));
    this->expectRefused("transform", setAll("tilegrid_voxel_size", openvdb::FloatMetadata(2.0f)));
    this->expectRefused("differs from grid", set("tilegrid_voxel_size", openvdb::FloatMetadata(2.0f)));
    this->expectRefused("version 2", setAll("tilegrid_levels_version", openvdb::Int32Metadata(2)));
    this->expectRefused("'ternary'", setAll("tilegrid_structure", openvdb::StringMetadata("ternary")));
    this->expectRefused("offset", setAll("tilegrid_offset", openvdb::Int32Metadata(8)));
    this->expectRefused("transform", setAll("tilegrid_offset", openvdb::Int32Metadata(0)));
    for (const int depth : {-1, 29, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        this->expectRefused("the depth", set("tilegrid_depth", openvdb::Int32Metadata(depth)));
        this->expectRefused("depth range", setAll("tilegrid_max_depth", openvdb::Int32Metadata(depth == -1 ? -2 : depth)));
    }
    this->expectRefused("transform", set("tilegrid_depth", openvdb::Int32Metadata(3)));
    this->expectRefused("initializer", setAll("tilegrid_initializer", openvdb::Int32Metadata(3)));
    this->expectRefused("differs from grid", set("tilegrid_initializer", openvdb::Int32Metadata(0)));
    this->expectRefused("differs from grid", set("tilegrid_default", openvdb::FloatMetadata(2.0f)));
    this->expectRefused("'tilegrid_default'", set("tilegrid_default", openvdb::Int32Metadata(2)));
    this->expectRefused("metadata says", set("tilegrid_tiles", openvdb::Int64Metadata(std::int64_t(1) << 60)));
    this->expectRefused("no property can have that name", set("tilegrid_property", openvdb::StringMetadata("")));
    this->expectRefused("no property can have that name",
                        set("tilegrid_property", openvdb::StringMetadata(sVoxelTileTree.str())));
    this->expectRefused("has no grid of depth", set("tilegrid_property", openvdb::StringMetadata("other")));
    // The other structure divides tile space in another way.
    const std::string other = TypeParam::branching == 2 ? "quinary" : "binary";
    EXPECT_NE(this->answer(setAll("tilegrid_structure", openvdb::StringMetadata(other))), "");
}

TYPED_TEST(EditedLevelFiles, with_partial_or_misaligned_tiles_are_refused)
{
    constexpr int W = TypeParam::width, kVoxels = W * W * W;
    const std::string few = std::to_string(kVoxels - 1) + " of the " + std::to_string(kVoxels);
    this->expectRefused(few, [](Grids& grids) { floats(grids).tree().setValueOff(firstActive(floats(grids))); });
    this->expectRefused("1 of the", [](Grids& grids) {
        floats(grids).tree().setValueOn(firstActive(floats(grids)).offsetBy(100 * W, 0, 0), 1.0f);
    });
    // One voxel to the side, transform included, so that it is the same field in space.
    this->expectRefused(" of the ", [](Grids& grids) {
        auto& grid = floats(grids);
        auto moved = openvdb::FloatGrid::create(0.0f);
        for (auto value = grid.tree().cbeginValueOn(); value; ++value)
            moved->tree().setValueOn(value.getCoord().offsetBy(1, 0, 0), *value);
        grid.setTree(moved->treePtr());
    });
}

TYPED_TEST(EditedLevelFiles, with_orphans_or_other_tiles_are_refused)
{
    const auto addTile = [](openvdb::FloatGrid& grid, openvdb::Coord const& low) {
        for (int n = 0; n < TypeParam::voxelCount; ++n) {
            const int3 at = cubeIndex(TypeParam::width, n);
            grid.tree().setValueOn(low.offsetBy(at.x, at.y, at.z), 1.0f);
        }
        const auto tiles = grid.metaValue<std::int64_t>("tilegrid_tiles");
        grid.removeMeta("tilegrid_tiles");
        grid.insertMeta("tilegrid_tiles", openvdb::Int64Metadata(tiles + 1));
    };
    constexpr int kFar = TypeParam::width * 1000000;
    const auto removeProperty = [](Grids& grids, std::string const& name) {
        std::erase_if(grids, [&](auto const& grid) { return grid->template metaValue<std::string>("tilegrid_property") == name; });
    };
    this->expectRefused("without a parent", [&](Grids& grids) {
        removeProperty(grids, "id");
        addTile(floats(grids), firstActive(floats(grids)).offsetBy(kFar, 0, 0));
    });
    this->expectRefused("has other tiles than grid", [&](Grids& grids) {
        addTile(floats(grids), firstActive(floats(grids)).offsetBy(TypeParam::width * 2, 0, 0));
    });
    this->expectRefused("reaches beyond the tree", [&](Grids& grids) {
        addTile(floats(grids), openvdb::Coord(std::numeric_limits<int>::max() - TypeParam::width));
    });
    this->expectRefused("without a parent", [&](Grids& grids) {
        std::erase_if(grids, [](auto const& grid) { return grid->template metaValue<std::int32_t>("tilegrid_depth") == 2; });
    });
    this->expectRefused("has no grid of depth", [&](Grids& grids) {
        auto const* gone = &gridOf(grids, "id");
        std::erase_if(grids, [gone](auto const& grid) { return grid.get() == gone; });
    });
    this->expectRefused("second one", [&](Grids& grids) { grids.push_back(gridOf(grids, "id").deepCopyGrid()); });
}

TYPED_TEST(EditedLevelFiles, with_constant_regions_other_types_moves_or_foreign_grids_are_refused)
{
    this->expectRefused("constant regions", [](Grids& grids) {
        // Some root nodes of 4096 voxels a side: little in the file, terabytes as voxels.
        floats(grids).sparseFill(openvdb::CoordBBox(openvdb::Coord(1 << 20), openvdb::Coord((1 << 20) + (1 << 14) - 1)), 1.0f);
    });
    this->expectRefused("transform", [](Grids& grids) { floats(grids).transform().postTranslate({0.5, 0, 0}); });
    this->expectRefused("transform", [](Grids& grids) { floats(grids).transform().postScale(1.5); });
    this->expectRefused("transform", [](Grids& grids) { floats(grids).transform().postRotate(0.1); });
    this->expectRefused("no level of a volume", [](Grids& grids) {
        grids.push_back(openvdb::FloatGrid::create());
        grids.back()->setName("foreign");
    });
    this->expectRefused("which no property has", [](Grids& grids) {
        auto grid = openvdb::BoolGrid::create();
        for (auto meta = floats(grids).beginMeta(); meta != floats(grids).endMeta(); ++meta) grid->insertMeta(meta->first, *meta->second);
        grids.push_back(grid);
    });
    this->expectRefused("'tilegrid_default'", [](Grids& grids) {
        auto grid = openvdb::DoubleGrid::create();
        for (auto meta = floats(grids).beginMeta(); meta != floats(grids).endMeta(); ++meta) grid->insertMeta(meta->first, *meta->second);
        grid->setTransform(floats(grids).transformPtr());
        grids.push_back(grid);
    });
}

TEST(LevelFileErrors, leave_the_old_file_and_notice_every_cut)
{
    const TestFolder folder;
    auto native = nativeVolume<BinaryTraits>([](Tree<BinaryTraits>&) {});
    folder.write("old.vdb", "old");
    const HostPtr empty = hostVolume(std::move(native));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { writeVdb(folder.file("old.vdb"), *empty, {}, VdbLayout::kLevels); }), "cannot write"));
    EXPECT_EQ(folder.read("old.vdb"), "old");
    writeVdb(folder.file("a.vdb"), *randomVolume<BinaryTraits>(9), {}, VdbLayout::kLevels);
    const std::string whole = folder.read("a.vdb");
    for (std::size_t size = 1; size < whole.size(); size += 1 + whole.size() / 60)
        errorOf<InputError>([&] { readVdb(folder.write("cut.vdb", whole.substr(0, size)), {}, {}); });
}

}  // namespace
}  // namespace tilegrid::test
