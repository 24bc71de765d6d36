#include "TilegridOps/merge/merge_volumes.h"

#include "TilegridOps/host/logger.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/channel_report.h"
#include "TilegridOps/substrate/commands.h"
#include "TilegridOps/substrate/grading.h"
#include "TilegridOps/substrate/memory_budget.h"
#include "TilegridOps/substrate/traversal.h"

#include <iostream>
#include <utility>

namespace tilegrid {

using namespace OST::TileTree3D;
using namespace Ostara::Geometry;

namespace {

/// Adds a channel of the type and default of the input's, if the input has a channel of a merged type by that name.
template <class In, class Out>
void addOutputChannel(OST::Object const& volume, Corvid::String const& name, VoxelTopology<Out> const& topology, OST::Object& output)
{
    firstKind([&]<class T>() {
        const auto channel = volume.component<Channel<In, T, In::width, 0>>(name);
        if (!channel) return false;
        Command::createChannel<T, Out::branching, Out::width, Out::width, 0>(name, topology, output, channel->defaultValue(),
                                                                             kInitializeLinear, 0, Out::maxDepth);
        return true;
    });
}

template <class Out> void createOutputChannels(NativeVolumes const& volumes, VoxelTopology<Out> const& topology, OST::Object& output)
{
    for (auto const& volume : volumes)
        for (Corvid::String const& name : volume->componentRange()) {
            if (output.hasComponentFromName(name)) continue;
            addOutputChannel<BinaryTraits>(*volume, name, topology, output);
            if (!output.hasComponentFromName(name)) addOutputChannel<QuinaryTraits>(*volume, name, topology, output);
        }
}

/// Writes a channel's range per depth for people who watch; changes nothing.
template <class Tr>
void validateChannelDump(Container<Tr> const& tree, VoxelChannelCore const& channel, char const* label, int verbose)
{
    if (verbose <= 0) return;
    if (auto const* floats = dynamic_cast<Channel<Tr, float, Tr::width, 0> const*>(&channel))
        reportChannel(label, tree, *floats, verbose, 0, Tr::maxDepth);
}

/// The channels of a result, taken out of it while they are written.
template <class Tr> class TakenChannels {
public:
    explicit TakenChannels(OST::Object& output) : output_(output)
    {
        for (Corvid::String const& name : output.componentRange())
            if (const ElementKind kind = plainKindOf<Tr>(output, name)) {
                taken_.push_back(output.extractComponent<VoxelChannelCore>(name));
                properties[name] = {taken_.back().get(), kind};
            }
    }
    void putBack()
    {
        for (auto& channel : taken_) output_.putComponent(std::move(channel));
        taken_.clear();
    }
    std::map<Corvid::String, typename MergeTarget<Tr>::Property> properties;

private:
    OST::Object& output_;
    std::vector<Corvid::MutablePtr<VoxelChannelCore>> taken_;
};

using Timer = std::unique_ptr<CoreGL::Logger::Timer>;

/// One pass does the work of several stages; each stage that takes part has its timer for the length of the pass.
template <class Tr> std::vector<Timer> stageTimers(MergeTarget<Tr> const& target, Corvid::RuntimeServices const& services)
{
    std::vector<Timer> timers;
    const auto start = [&](char const* name) { timers.push_back(CoreGL::Logger::timer(name, &services)); };
    auto const& merged = target.mergedPropertyNames;
    const std::size_t levelSets = merged.count(sVoxelSignedDistance), fogs = merged.count(sVoxelFogDensity);
    if (levelSets) start("Geometry::Volume::merge_volumes.merge_levelset");
    if (fogs) start("Geometry::Volume::merge_volumes.merge_fog_density");
    if (merged.size() > levelSets + fogs) start("Geometry::Volume::merge_volumes.merge_properties");
    return timers;
}

template <class Tr>
void fillChannels(NativeVolumes const& volumes, MergeModes const& modes, Container<Tr> const& tree, VoxelTopology<Tr> const& topology,
                  OST::Object& output, Corvid::RuntimeServices const& services)
{
    TakenChannels<Tr> channels(output);
    MergeTarget<Tr> target{tree, topology, channels.properties, {}, {}, false};
    for (auto const& volume : volumes) {
        if (volume->hasComponentFromName<Container<BinaryTraits>>(sVoxelTileTree)) mergeVolumeIntoOutput<BinaryTraits>(*volume, modes, target);
        if (volume->hasComponentFromName<Container<QuinaryTraits>>(sVoxelTileTree)) mergeVolumeIntoOutput<QuinaryTraits>(*volume, modes, target);
    }
    {
        const auto timers = stageTimers(target, services);
        target.pass.run(tree);
    }
    if (target.mergedPropertyNames.count(sVoxelSignedDistance))
        validateChannelDump(tree, *channels.properties[sVoxelSignedDistance].channel, "after merging", CoreGL::Logger::verboseLevel());
    channels.putBack();
}

template <class Tr>
Corvid::MutablePtr<OST::Object> mergeInto(NativeVolumes const& volumes, MergeParameters const& parameters, MergeDecisions const& decisions,
                                          Corvid::RuntimeServices const& services)
{
    auto output = Command::createVoxelOST<Tr>(sVoxelTileTree, sVoxelComp, decisions.outputVoxelSize, kCorner);
    if constexpr (std::is_same_v<Tr, BinaryTraits>)
        if (decisions.adaptive) {
            auto tree = output->template extractComponent<Container<Tr>>(sVoxelTileTree);
            tree->setMaxRelativeRefinementError(decisions.maxRelativeError);
            output->putComponent(std::move(tree));
        }
    {
        const auto timer = CoreGL::Logger::timer("Geometry::Volume::merge_volumes.create_output_channels", &services);
        const auto topology = output->template component<VoxelTopology<Tr>>(sVoxelComp);
        createOutputChannels(volumes, *topology, *output);
    }
    mergeVolumesIntoOutput<Tr>(volumes, parameters.modes, decisions.adaptive, decisions.maxError, *output, services, parameters.graded);
    return output;
}

}  // namespace

template <class Tr>
void mergeVolumesIntoOutput(NativeVolumes const& volumes, MergeModes const& modes, bool adaptive, float maxError, OST::Object& output,
                            Corvid::RuntimeServices const& services, bool graded)
{
    const bool hasLevelSet = output.hasComponentFromName<Channel<Tr, float, Tr::width, 0>>(sVoxelSignedDistance);
    auto tree = output.extractComponent<Container<Tr>>(sVoxelTileTree);
    auto topology = output.extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    if (CoreGL::Logger::verboseLevel() > 1) std::cout << "containerOut.voxelCount() = " << tree->voxelCount(-1) << std::endl;
    {
        const TileBudget<Tr> budget(*tree, tileBytes<Tr>(output));
        const bool refined = adaptive && hasLevelSet && refineTopologyAdaptively(volumes, modes.levelSet, maxError, *topology, *tree, services);
        if (!refined) refineTopologyUniformly(volumes, *tree, services);
        if (refined && graded) CoreGL::TileTree3D::gradeTileTree<Tr>(*tree, nullptr, nullptr, 0, Tr::maxDepth);
    }
    topology->update(*tree);
    updateTilesAdded(*topology, output);
    fillChannels(volumes, modes, *tree, *topology, output, services);
    output.putComponent(std::move(topology));
    output.putComponent(std::move(tree));
}

Corvid::MutablePtr<OST::Object> mergeVolumes(NativeVolumes const& volumes, MergeParameters const& parameters,
                                             MergeDecisions const& decisions, Corvid::RuntimeServices const& services)
{
    return decisions.outputTraits24 ? mergeInto<BinaryTraits>(volumes, parameters, decisions, services)
                                    : mergeInto<QuinaryTraits>(volumes, parameters, decisions, services);
}

template void mergeVolumesIntoOutput<BinaryTraits>(NativeVolumes const&, MergeModes const&, bool, float, OST::Object&,
                                                   Corvid::RuntimeServices const&, bool);
template void mergeVolumesIntoOutput<QuinaryTraits>(NativeVolumes const&, MergeModes const&, bool, float, OST::Object&,
                                                    Corvid::RuntimeServices const&, bool);

}  // namespace tilegrid
