#pragma once
#include "TilegridOps/host/geometry.h"
#include "TilegridOps/host/logger.h"
#include "TilegridOps/substrate/commands.h"
#include "support/trees.h"

#include <functional>

namespace tilegrid::test {

using Host = Ostara::Object;
using HostPtr = Corvid::Ptr<Ostara::Object>;
using Native = OST::Object;
using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelPosition;
using Ostara::Geometry::sVoxelTileTree;

/// The messages of a node, and services that collect them.
class Messages {
public:
    using List = std::vector<std::pair<Severity, std::string>>;
    explicit Messages(Job* job = nullptr)
        : services_(
            job,
            [this](Severity severity, Corvid::StringView text) {
                list_.push_back({severity, std::string(text)});
            },
            [this](Corvid::StringView what, double) { progress_.push_back(std::string(what)); })
    {}
    Corvid::RuntimeServices const& services() const { return services_; }
    List const& list() const { return list_; }
    std::vector<std::string> const& progress() const { return progress_; }

private:
    List list_;
    std::vector<std::string> progress_;
    Corvid::RuntimeServices services_;
};

/// A native volume around the tree that `grow` makes.
template <class Tr>
Corvid::MutablePtr<Native> nativeVolume(std::function<void(Tree<Tr>&)> const& grow, float voxelSize = 1.0f)
{
    using namespace OST::TileTree3D;
    auto volume = Command::createVoxelOST<Tr>(sVoxelTileTree, sVoxelComp, voxelSize, kCorner);
    auto tree = volume->template extractComponent<Tree<Tr>>(sVoxelTileTree);
    auto topology = volume->template extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    grow(*tree);
    topology->update(*tree);
    volume->putComponent(std::move(topology));
    volume->putComponent(std::move(tree));
    return volume;
}

template <class Tr> Corvid::Ptr<Tree<Tr>> treeOf(Native const& volume)
{
    return volume.component<Tree<Tr>>(sVoxelTileTree);
}

/// Adds a channel of type C with `value(tile, flat)` in every element, flat running over the whole array with its halo.
template <class C>
void addChannel(Native& volume, Corvid::String const& name, typename C::Element const& defaultValue,
                std::function<typename C::Element(TileKey const&, int)> const& value, int minDepth = 0,
                int depth = C::Traits::maxDepth)
{
    const auto tree = treeOf<typename C::Traits>(volume);
    auto channel =
        Corvid::makeMutable<C>(name, &defaultValue, OST::TileTree3D::kInitializeLinear, false, true, minDepth, depth);
    channel->updateTilesAdded(*tree);
    for (int d = channel->minDepth(); d <= channel->depth(); ++d)
        for (OST::int64 n = 0; n < tree->tileCount(d); ++n) {
            const auto data = channel->tileData(n, d);
            for (int e = 0; e < data.size(); ++e) data(e) = value(keyOf(tree->tile(n, d)), e);
        }
    volume.putComponent(std::move(channel));
}

inline HostPtr hostVolume(Corvid::MutablePtr<Native> volume)
{
    return Ostara::Geometry::move_ost_volume_to_object(*volume);
}

/// What a node leaves when it was cancelled.
inline bool isEmptyObject(HostPtr const& object)
{
    return object && !object->prototype() && object->entries().empty() && !object->native();
}

/// Names under which nodes told the host that they stopped, while it lives.
class Terminations {
public:
    Terminations()
    {
        setTerminationSink([this](Corvid::StringView name) { names_.push_back(std::string(name)); });
    }
    Terminations(Terminations const&) = delete;
    Terminations& operator=(Terminations const&) = delete;
    ~Terminations() { setTerminationSink({}); }
    std::vector<std::string> const& names() const { return names_; }

private:
    std::vector<std::string> names_;
};

}  // namespace tilegrid::test
