#include "TilegridOps/nodes/level_set.h"

#include "TilegridOps/algorithms/channel_coarsen.h"
#include "TilegridOps/algorithms/level_set_edit.h"
#include "TilegridOps/algorithms/redistance.h"
#include "TilegridOps/algorithms/volume_depth.h"
#include "TilegridOps/nodes/frame.h"

#include <cfloat>
#include <iostream>

namespace Geometry::Volume {

namespace {

using namespace OST::TileTree3D;
using namespace tilegrid::nodes;
using namespace Ostara::Geometry;
using CoreGL::CorvidLogger;
using VolumeGL::TileTree3D::LevelSet::RedistancingScheme;

constexpr auto kNeverHandsThrough = [](CorvidLogger const&) { return false; };

/// How a node wants distances made again.
struct Redistancing {
    /// Whether distances count for nothing far from the surface, and next to it.
    bool resetFar, resetCrossing;
    int preSmoothing, postSmoothing;
    char const* stage;
};
constexpr Redistancing kRebuild = {true, true, 10, 10, "Geometry::Volume::rebuild_level_set"};
/// Distances that were true before tiles went stay as they are.
constexpr Redistancing kAfterCoarsening = {false, false, 0, 0, "Volume::LevelSet::redistance"};

/// \return false, with the volume as it was, if it has no such property or another structure
template <class Tr> bool redistanceIn(OST::Object& volume, Corvid::String const& property, Redistancing const& how)
{
    using Floats = Channel<Tr, float, Tr::width, 0>;
    if (!volume.component<Container<Tr>>(sVoxelTileTree) || !volume.component<VoxelTopology<Tr>>(sVoxelComp) || !volume.component<Floats>(property))
        return false;
    const bool ownFlags = !volume.hasComponentFromName(sVoxelDegreeOfFreedom);
    if (ownFlags) createDofs<Tr>(sVoxelDegreeOfFreedom, volume);
    auto tree = volume.extractComponent<Container<Tr>>(sVoxelTileTree);
    auto topology = volume.extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    auto levelSet = volume.extractComponent<Floats>(property);
    const auto flags = volume.component<DofChannel<Tr>>(sVoxelDegreeOfFreedom);
    VolumeGL::TileTree3D::LevelSet::levelSetRedistance<Tr>(*tree, *topology, *levelSet, how.resetFar, how.resetCrossing, /*keepSigns*/ true, 0,
                                                           Tr::maxDepth, nullptr, nullptr, 0.01f, FLT_MAX, FLT_MAX, how.preSmoothing,
                                                           how.postSmoothing, /*restoreDependents*/ true, /*unsignedResult*/ false, flags.get(),
                                                           how.stage, RedistancingScheme::kClosestPoint);
    if (ownFlags) {
        Corvid::Ptr<OST::Component> removed;
        volume.removeComponent(sVoxelDegreeOfFreedom, removed);
    }
    volume.putComponent(std::move(levelSet));
    volume.putComponent(std::move(topology));
    volume.putComponent(std::move(tree));
    return true;
}

template <class Tr> void setVoxelSizeIn(OST::Object& volume, float voxelSize)
{
    auto tree = volume.extractComponent<Container<Tr>>(sVoxelTileTree);
    if (!tree) return;
    tree->setVoxelSize(voxelSize);
    auto topology = volume.extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    if (topology) topology->update(*tree);
    if (CoreGL::Logger::verboseLevel() > 0) std::cout << "set voxel size: " << tree->voxelSize() << std::endl;
    volume.putComponent(std::move(topology));
    volume.putComponent(std::move(tree));
}

}  // namespace

void rebuild_level_set(Corvid::Ptr<Ostara::Object> volume, Corvid::String const& property, Corvid::Ptr<Ostara::Object>& out,
                       Corvid::RuntimeServices const& services)
{
    bool rebuilt = false;
    modifyVolume(
        nodeSpec("rebuild_level_set"), std::move(volume), out, services, kNeverHandsThrough,
        [&](std::ostream& text) { text << "property = " << property << std::endl; },
        [&](OST::Object& native, CorvidLogger const&) {
            const bool binary = redistanceIn<BinaryTraits>(native, property, kRebuild);
            const bool quinary = redistanceIn<QuinaryTraits>(native, property, kRebuild);
            rebuilt = binary || quinary;
        },
        [&](CorvidLogger const& logger) {
            if (!rebuilt) logger.error("Unable to rebuild level set.");
        });
}

void coarsen_voxel_property(Corvid::Ptr<Ostara::Object> volume, Corvid::String const& property, float absolute_error, float relative_error,
                            bool protect_surface, float surface_band, Corvid::Ptr<Ostara::Object>& out, Corvid::RuntimeServices const& services)
{
    constexpr NodeSpec const& row = nodeSpec("coarsen_voxel_property");
    const auto timer = CoreGL::Logger::timer(Corvid::String(row.timer), &services);
    const auto work = [&] {
        if (Corvid::isJobCancelled()) {
            out = Ostara::createObject();
            return;
        }
        out = Corvid::toMutable(volume);
        const CorvidLogger logger(services);
        if (!out || !checkType(row, *out, logger)) {
            if (!out) logger.error(row.typeError);
            out = Ostara::createObject();
            return;
        }
        logger.info("coarsen_voxel_property.begin");
        if (auto native = move_object_to_ost_volume(*Corvid::toMutable(out))) {
            VolumeGL::TileTree3D::channelCoarsen(property, absolute_error, relative_error, protect_surface, surface_band, *native,
                                                 "Volume::coarsen_voxel_property.");
            if (property == sVoxelSignedDistance) {
                const auto stage = CoreGL::Logger::timer("Volume::coarsen_voxel_property.redistance", &services);
                redistanceIn<BinaryTraits>(*native, property, kAfterCoarsening);
                redistanceIn<QuinaryTraits>(*native, property, kAfterCoarsening);
            }
            checkVolume(*native, row.name);
            out = move_ost_volume_to_object(*native);
        }
        logger.info("coarsen_voxel_property.end");
    };
    guarded(row, services, work, [&] { out = Ostara::createObject(); });
}

void resize_level_set(Corvid::Ptr<Ostara::Object> level_set, float bandwidth, Corvid::Ptr<Ostara::Object>& output,
                      Corvid::RuntimeServices const& services)
{
    modifyVolume(
        nodeSpec("resize_level_set"), std::move(level_set), output, services,
        [&](CorvidLogger const& logger) {
            if (0 > bandwidth) {
                bandwidth = 0;
                logger.warn("Bandwidth clamped to zero.");
            }
            return false;
        },
        [&](std::ostream& text) { text << "bandwidth = " << bandwidth << std::endl; },
        [&](OST::Object& native, CorvidLogger const& logger) {
            VolumeGL::TileTree3D::LevelSet::resize(bandwidth, native, sVoxelTileTree, sVoxelComp, sVoxelSignedDistance, logger);
        });
}

void set_voxel_size(Corvid::Ptr<Ostara::Object> volume, float voxelSize, bool, Corvid::Ptr<Ostara::Object>& out,
                    Corvid::RuntimeServices const& services)
{
    constexpr NodeSpec const& row = nodeSpec("set_voxel_size");
    const auto work = [&] {
        if (Corvid::isJobCancelled()) {
            out = Ostara::createObject();
            return;
        }
        out = Corvid::toMutable(volume);
        const CorvidLogger logger(services);
        if (!out) return logger.error(row.typeError);
        if (!checkType(row, *out, logger)) return;
        logger.info("set_voxel_size.begin");
        if (auto native = move_object_to_ost_volume(*Corvid::toMutable(out))) {
            if (voxelSize > 0) {
                setVoxelSizeIn<BinaryTraits>(*native, voxelSize);
                setVoxelSizeIn<QuinaryTraits>(*native, voxelSize);
            }
            checkVolume(*native, row.name);
            out = move_ost_volume_to_object(*native);
        }
        logger.info("set_voxel_size.end");
    };
    guarded(row, services, work, [&] { out = Ostara::createObject(); });
}

void Internal::compute_volume_depth(Corvid::String const& property, float a, float b, int count, Corvid::Ptr<Ostara::Object>& volume,
                                    Corvid::RuntimeServices const& services)
{
    constexpr NodeSpec const& row = nodeSpec("compute_volume_depth");
    const auto timer = CoreGL::Logger::timer(Corvid::String(row.timer), &services);
    const auto work = [&] {
        if (Corvid::isJobCancelled()) {
            volume = Ostara::createObject();
            return;
        }
        if (!volume) return;
        auto native = move_object_to_ost_volume(*Corvid::toMutable(volume));
        if (!native) return;
        using Tr = BinaryTraits;
        const auto tree = native->component<Container<Tr>>(sVoxelTileTree);
        const auto topology = native->component<VoxelTopology<Tr>>(sVoxelComp);
        const auto channel = native->component<Channel<Tr, float, Tr::width, 0>>(property);
        if (!tree || !topology || !channel) return;
        VolumeGL::TileTree3D::LevelSet::computeVolumeDepth<Tr>(a, b, count, *tree, *topology, *channel, *native);
        checkVolume(*native, row.name);
        volume = move_ost_volume_to_object(*native);
    };
    guarded(row, services, work, [&] { volume = Ostara::createObject(); });
}

}  // namespace Geometry::Volume
