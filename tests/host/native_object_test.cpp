#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/commands.h"
#include "support/structures.h"

#include <gtest/gtest.h>

namespace tilegrid::test {
namespace {

using Corvid::Array;
using Corvid::makeMutable;
using Corvid::Ptr;
using Corvid::String;
using namespace Ostara::Geometry;
using namespace OST::TileTree3D;

template <class Tr> using FloatChannel = Channel<Tr, float, Tr::width, 0>;

template <class Tr> Corvid::MutablePtr<FloatChannel<Tr>> channelNamed(char const* name, float value = 0)
{
    return makeMutable<FloatChannel<Tr>>(name, &value, kInitializeNone, false, true, 0, Tr::maxDepth);
}

template <class Tr> class NativeObject : public ::testing::Test {
protected:
    using Other = std::conditional_t<Tr::branching == 2, QuinaryTraits, BinaryTraits>;
    Corvid::MutablePtr<OST::Object> object_ = Command::createVoxelOST<Tr>(sVoxelTileTree, sVoxelComp, 0.25f, kFaceY);
};
TYPED_TEST_SUITE(NativeObject, Structures, StructureNames);

TYPED_TEST(NativeObject, as_created_holds_an_empty_tree_and_its_topology)
{
    const auto tree = this->object_->template component<Container<TypeParam>>(sVoxelTileTree);
    const auto topology = this->object_->template component<VoxelTopology<TypeParam>>(sVoxelComp);
    ASSERT_TRUE(tree && topology);
    EXPECT_TRUE(tree->empty());
    EXPECT_EQ(tree->voxelSize(), 0.25f);
    EXPECT_EQ(tree->maxRelativeRefinementError(), 0.0f);
    EXPECT_EQ(tree->name(), sVoxelTileTree);
    EXPECT_EQ(topology->name(), sVoxelComp);
    EXPECT_EQ(topology->offsetType(), kFaceY);
    EXPECT_TRUE(topology->empty());
    EXPECT_EQ(this->object_->componentRange().size(), 2u);
}

TYPED_TEST(NativeObject, asked_for_the_other_structure_or_another_type_gives_null_and_changes_nothing)
{
    using Other = typename TestFixture::Other;
    EXPECT_FALSE(this->object_->template component<Container<Other>>(sVoxelTileTree));
    EXPECT_FALSE(this->object_->template extractComponent<Container<Other>>(sVoxelTileTree));
    EXPECT_FALSE(this->object_->template component<VoxelTopology<TypeParam>>(sVoxelTileTree));
    EXPECT_FALSE(this->object_->template extractComponent<Container<TypeParam>>("no such name"));
    EXPECT_TRUE(this->object_->hasComponentFromName(sVoxelTileTree));
    EXPECT_TRUE(this->object_->template hasComponentFromName<Container<TypeParam>>(sVoxelTileTree));
    EXPECT_FALSE(this->object_->template hasComponentFromName<Container<Other>>(sVoxelTileTree));
    EXPECT_FALSE(this->object_->hasComponentFromName("no such name"));
}

TYPED_TEST(NativeObject, gives_a_component_that_nobody_shares_out_without_a_copy)
{
    auto channel = channelNamed<TypeParam>("c", 3);
    auto const* address = channel.get();
    this->object_->putComponent(std::move(channel));
    auto out = this->object_->template extractComponent<FloatChannel<TypeParam>>("c");
    EXPECT_EQ(out.get(), address);
    EXPECT_FALSE(this->object_->hasComponentFromName("c"));
    this->object_->putComponent(std::move(out));
    EXPECT_EQ(this->object_->template component<FloatChannel<TypeParam>>("c").get(), address);
}

TYPED_TEST(NativeObject, clones_a_component_on_the_way_out_while_somebody_shares_it)
{
    Container<TypeParam> tree("tree");
    tree.tileAccessor().addTile(0, 0, 0, 0);
    auto channel = channelNamed<TypeParam>("c", 3);
    channel->updateTilesAdded(tree);
    this->object_->putComponent(std::move(channel));
    const auto sharing = this->object_->template component<FloatChannel<TypeParam>>("c");
    auto out = this->object_->template extractComponent<FloatChannel<TypeParam>>("c");
    ASSERT_TRUE(out);
    EXPECT_NE(out.get(), sharing.get());
    out->tileData(0, 0).set(8);
    EXPECT_EQ(sharing->tileData(0, 0)(0), 3) << "the sharing holder is untouched";
    EXPECT_EQ(sharing.useCount(), 1);
    EXPECT_FALSE(this->object_->hasComponentFromName("c"));
}

TYPED_TEST(NativeObject, shares_its_components_with_its_copies_until_one_is_extracted)
{
    this->object_->putComponent(channelNamed<TypeParam>("c", 3));
    this->object_->attributes()["note"] = Corvid::Any(7);
    OST::Object copy = *this->object_;
    EXPECT_EQ(copy.template component<FloatChannel<TypeParam>>("c").get(),
              this->object_->template component<FloatChannel<TypeParam>>("c").get());
    EXPECT_EQ(*copy.attributes()["note"].template get<int>(), 7);
    auto tree = copy.template extractComponent<Container<TypeParam>>(sVoxelTileTree);
    tree->tileAccessor().addTile(0, 0, 0, 3);
    copy.putComponent(std::move(tree));
    EXPECT_TRUE(this->object_->template component<Container<TypeParam>>(sVoxelTileTree)->empty());
    EXPECT_EQ(copy.template component<Container<TypeParam>>(sVoxelTileTree)->tileCount(-1), 4);
}

TYPED_TEST(NativeObject, stores_a_component_under_its_own_name_in_place_of_an_older_one)
{
    this->object_->putComponent(channelNamed<TypeParam>("c", 1));
    this->object_->putComponent(channelNamed<TypeParam>("c", 2));
    EXPECT_EQ(this->object_->template component<FloatChannel<TypeParam>>("c")->defaultValue(), 2);
    EXPECT_EQ(this->object_->componentRange().size(), 3u);
    auto renamed = this->object_->template extractComponent<FloatChannel<TypeParam>>("c");
    renamed->setName("d");
    this->object_->putComponent(std::move(renamed));
    EXPECT_FALSE(this->object_->hasComponentFromName("c"));
    EXPECT_TRUE(this->object_->hasComponentFromName("d"));
    this->object_->putComponent({});
    EXPECT_EQ(this->object_->componentRange().size(), 3u);
}

TYPED_TEST(NativeObject, lists_all_names_in_order_and_hands_out_what_is_removed)
{
    this->object_->putComponent(channelNamed<TypeParam>("zz"));
    this->object_->putComponent(channelNamed<TypeParam>("aa"));
    const Array<String> names = this->object_->componentRange();
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_EQ(names.size(), 4u);
    Ptr<OST::Component> removed;
    this->object_->removeComponent("aa", removed);
    ASSERT_TRUE(removed);
    EXPECT_EQ(removed->name(), String("aa"));
    this->object_->removeComponent("aa", removed);
    EXPECT_FALSE(removed);
    EXPECT_EQ(this->object_->componentRange().size(), 3u);
}

TYPED_TEST(NativeObject, gets_a_channel_created_for_its_topology_with_the_default_value)
{
    auto tree = this->object_->template extractComponent<Container<TypeParam>>(sVoxelTileTree);
    tree->tileAccessor().addTile(0, 0, 0, 5);
    auto topology = this->object_->template extractComponent<VoxelTopology<TypeParam>>(sVoxelComp);
    topology->update(*tree);
    const auto made = Command::createChannel<int3, TypeParam::branching, TypeParam::width, TypeParam::width, 0>(
        "voxel_test", *topology, *this->object_, int3(1, 2, 3), kInitializeLinear, 1, 4);
    ASSERT_TRUE(made);
    EXPECT_EQ(made.get(),
              (this->object_->template component<Channel<TypeParam, int3, TypeParam::width, 0>>("voxel_test").get()));
    EXPECT_EQ(made->tileCount(-1), 4);
    EXPECT_EQ(made->minDepth(), 1);
    EXPECT_EQ(made->depth(), 4);
    EXPECT_EQ(made->dataElementInitializerType(), kInitializeLinear);
    EXPECT_EQ(made->tileData(0, 4)(7), int3(1, 2, 3));
}

TYPED_TEST(NativeObject, passes_into_a_host_object_and_back_with_everything_that_is_not_geometry)
{
    this->object_->putComponent(channelNamed<TypeParam>("voxel_heat"));
    this->object_->attributes()["author"] = Corvid::Any(String("me"));
    auto host = move_ost_volume_to_object(*this->object_);
    ASSERT_TRUE(host);
    EXPECT_EQ(this->object_->componentRange().size(), 0u) << "the native object is left empty";
    EXPECT_TRUE(this->object_->attributes().empty());
    EXPECT_TRUE(Ostara::Object::isA(*host, *getVolumePrototype()));
    EXPECT_FALSE(Ostara::Object::isA(*host, *getLevelSetPrototype()));
    ASSERT_NE(host->template get<String>("author"), nullptr);
    EXPECT_EQ(*host->template get<String>("author"), String("me"));

    const auto view = shallow_copy_object_to_ost_volume(*host);
    ASSERT_TRUE(view);
    EXPECT_TRUE(view->hasComponentFromName("voxel_heat"));
    EXPECT_TRUE(host->native()) << "a view takes nothing";

    const auto back = move_object_to_ost_volume(*host);
    ASSERT_TRUE(back);
    EXPECT_FALSE(host->native());
    EXPECT_TRUE(back->hasComponentFromName("voxel_heat"));
    EXPECT_TRUE(back->hasComponentFromName(sVoxelTileTree));
    EXPECT_EQ(back->attributes().size(), 1u);
    EXPECT_FALSE(move_object_to_ost_volume(*host)) << "there is nothing left to take";
    EXPECT_FALSE(shallow_copy_object_to_ost_volume(*host));
}

TYPED_TEST(NativeObject, with_a_signed_distance_becomes_a_level_set)
{
    this->object_->putComponent(channelNamed<TypeParam>(sVoxelSignedDistance.c_str()));
    const auto host = move_ost_volume_to_object(*this->object_);
    EXPECT_TRUE(Ostara::Object::isA(*host, *getLevelSetPrototype()));
    EXPECT_TRUE(Ostara::Object::isA(*host, *getVolumePrototype()));
}

TYPED_TEST(NativeObject, taken_out_of_one_of_two_copies_of_a_host_object_leaves_the_other_whole)
{
    const Ptr<Ostara::Object> shared = move_ost_volume_to_object(*this->object_);
    Ptr<Ostara::Object> mine = shared;
    auto copy = Corvid::toMutable(mine);
    auto native = move_object_to_ost_volume(*copy);
    auto tree = native->template extractComponent<Container<TypeParam>>(sVoxelTileTree);
    tree->tileAccessor().addTile(0, 0, 0, 2);
    tree->setVoxelSize(99);
    const auto view = shallow_copy_object_to_ost_volume(*shared);
    ASSERT_TRUE(view);
    EXPECT_TRUE(view->template component<Container<TypeParam>>(sVoxelTileTree)->empty());
    EXPECT_EQ(view->template component<Container<TypeParam>>(sVoxelTileTree)->voxelSize(), 0.25f);
}

TEST(HostObject, is_what_its_chain_of_prototypes_says)
{
    const auto plain = Ostara::createObject();
    EXPECT_FALSE(plain->prototype());
    EXPECT_TRUE(plain->entries().empty());
    EXPECT_FALSE(plain->native());
    EXPECT_FALSE(Ostara::Object::isA(*plain, *getVolumePrototype()));
    const Ostara::Object volume(getVolumePrototype()), levelSet(getLevelSetPrototype()),
        points(getPointCloudPrototype());
    EXPECT_TRUE(Ostara::Object::isA(levelSet, *getVolumePrototype()));
    EXPECT_TRUE(Ostara::Object::isA(levelSet, *getLevelSetPrototype()));
    EXPECT_FALSE(Ostara::Object::isA(volume, *getLevelSetPrototype()));
    EXPECT_FALSE(Ostara::Object::isA(points, *getVolumePrototype()));
    EXPECT_FALSE(Ostara::Object::isA(volume, *getPointCloudPrototype()));
    EXPECT_TRUE(getVolumePrototype() == getVolumePrototype()) << "a prototype is always the same object";
}

TEST(HostObject, keeps_typed_entries)
{
    Ostara::Object object;
    object.set("number", 4);
    object.set("text", String("t"));
    EXPECT_EQ(*object.get<int>("number"), 4);
    EXPECT_EQ(object.get<float>("number"), nullptr);
    EXPECT_EQ(object.get<int>("missing"), nullptr);
    object.set("number", 5.0);
    EXPECT_EQ(object.get<int>("number"), nullptr);
    EXPECT_EQ(*object.get<double>("number"), 5.0);
}

TEST(HostObject, copies_properties_that_are_not_geometry_from_the_first_source_that_has_them)
{
    auto first = Ostara::createObject(), second = Ostara::createObject();
    first->set("a", 1);
    second->set("a", 2);
    second->set("b", 3);
    second->set("c", 4);
    OST::Object native;
    second->native() = makeMutable<OST::Object>(native);
    Ostara::Object target;
    target.set("c", 9);
    Array<Ptr<Ostara::Object>> sources;
    sources.push_back({});
    sources.push_back(Ptr<Ostara::Object>(std::move(first)));
    sources.push_back(Ptr<Ostara::Object>(std::move(second)));
    Ostara::GeometryAlgorithms::copyNonGeoProperties(sources, target);
    EXPECT_EQ(*target.get<int>("a"), 1);
    EXPECT_EQ(*target.get<int>("b"), 3);
    EXPECT_EQ(*target.get<int>("c"), 9) << "what the target has stays";
    EXPECT_FALSE(target.native());
    EXPECT_EQ(target.entries().size(), 3u);
}

TEST(PropertyNames, are_all_different)
{
    const String names[] = {sVoxelTileTree,
                            sVoxelComp,
                            sPointComp,
                            sVoxelSignedDistance,
                            sVoxelFogDensity,
                            sVoxelTemperature,
                            sVoxelPosition,
                            sVoxelDegreeOfFreedom,
                            sVoxelSignedAirLiquidDistance,
                            sPointPosition,
                            sPointDroplet,
                            sData,
                            OST::Const::TileTreePointTopologyName};
    std::set<std::string> texts;
    for (String const& name : names) {
        EXPECT_FALSE(name.empty());
        EXPECT_TRUE(texts.insert(name.str()).second) << name;
    }
}

}  // namespace
}  // namespace tilegrid::test
