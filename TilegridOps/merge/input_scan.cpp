#include "TilegridOps/host/logger.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/merge/merge_volumes.h"
#include "TilegridOps/merge/plain_channels.h"
#include "TilegridOps/substrate/traversal.h"

#include <iostream>

namespace tilegrid {

using namespace OST::TileTree3D;
using namespace Ostara::Geometry;

namespace {

using Box = Ostara::Math::bbox<int3, int>;

/// Box of the low corners of all voxels, of every depth, with a value of at most 0.
template <class Tr> Box insideBox(Container<Tr> const& tree, Channel<Tr, float, Tr::width, 0> const& channel)
{
    Box box;
    tree.reduce(
        detail::Nothing(), detail::Nothing(),
        [&channel](auto const& tile, Box& inside) {
            const auto values = channel.tileData(tile.treeIndex());
            if (!values) return;
            const int width = tile.voxelDataWidth();
            for (int flat = 0; flat < Tr::voxelCount; ++flat)
                if (values(flat) <= 0.0f) inside.add(tile.tijk() + width * cubeIndex(Tr::width, flat));
        },
        detail::Nothing(), detail::Nothing(), [](Box& left, Box const& right) { left.add(right); }, box, kParallelTree, TreeIndex(), 0,
        Tr::maxDepth, 50);
    return box;
}

/// The longest side in world units; 0 if any side is.
float longestSide(Box const& box, float voxelSize)
{
    const float3 width = voxelSize * float3(box.max) - voxelSize * float3(box.min);
    if (!(width.x > FLT_MIN && width.y > FLT_MIN && width.z > FLT_MIN)) return 0.0f;
    return std::max(width.x, std::max(width.y, width.z));
}

template <class Tr> void scanInput(OST::Object const& volume, bool adaptive, MergeDecisions& decisions)
{
    const auto tree = volume.component<Container<Tr>>(sVoxelTileTree);
    if (!tree) return;
    decisions.outputVoxelSize = std::min(decisions.outputVoxelSize, tree->voxelSize());
    if constexpr (std::is_same_v<Tr, BinaryTraits>) decisions.outputTraits24 = true;
    const auto levelSet = volume.component<Channel<Tr, float, Tr::width, 0>>(sVoxelSignedDistance);
    if (!adaptive || !levelSet) return;
    const Box box = insideBox(*tree, *levelSet);
    if (!box.empty()) decisions.referenceLength = std::min(decisions.referenceLength, longestSide(box, tree->voxelSize()));
}

template <class Tr> void scanTolerance(OST::Object const& volume, MergeDecisions& decisions)
{
    const auto tree = volume.component<Container<Tr>>(sVoxelTileTree);
    if (!tree) return;
    const float tolerance = tree->maxRelativeRefinementError();
    if (CoreGL::Logger::verboseLevel() > 1) std::cout << "container->maxRelativeRefinementError() = " << tolerance << std::endl;
    if (!(tolerance > 0.0f)) return;
    decisions.forcedAdaptivity = true;
    decisions.maxRelativeError = std::min(decisions.maxRelativeError, tolerance);
}

/// False for a volume with a tree whose voxels have no size.
template <class Tr> bool hasVoxelSize(OST::Object const& volume)
{
    const auto tree = volume.component<Container<Tr>>(sVoxelTileTree);
    return !tree || (tree->voxelSize() > 0.0f && tree->voxelSize() <= FLT_MAX);
}

void useMaxError(float maxError, MergeDecisions& decisions)
{
    decisions.maxError = maxError;
    // Of a flat level set there is no length to relate it to; what the tree records is then relative to the voxel alone.
    const float length = decisions.referenceLength > 0.0f ? decisions.referenceLength : 1.0f;
    decisions.maxRelativeError = std::min(maxError / (decisions.outputVoxelSize * length), FLT_MAX);
}

void report(MergeDecisions const& decisions)
{
    if (CoreGL::Logger::verboseLevel() <= 1) return;
    std::cout << "outputVoxelSize = " << decisions.outputVoxelSize << "\noutputTraits24 = " << decisions.outputTraits24
              << "\nmaxError = " << decisions.maxError << std::endl;
}

}  // namespace

NativeVolumes workingVolumes(NativeVolumes const& volumes, bool invertOrder, Corvid::RuntimeServices const& services)
{
    NativeVolumes working(volumes.size());
    for (std::size_t n = 0; n < volumes.size(); ++n) {
        auto volume = Corvid::makeMutable<OST::Object>(*volumes[n]);  // shares all components
        if (hasVoxelSize<BinaryTraits>(*volume) && hasVoxelSize<QuinaryTraits>(*volume)) {
            usePlainChannels(*volume);
        } else {
            CoreGL::CorvidLogger(services).warn("Input 'volumes' contains a volume whose voxel size is not positive; it is left out.");
            volume = Corvid::makeMutable<OST::Object>();
        }
        working[invertOrder ? volumes.size() - 1 - n : n] = std::move(volume);
    }
    return working;
}

MergeDecisions decideMerge(NativeVolumes const& volumes, MergeParameters const& parameters)
{
    MergeDecisions decisions;
    const bool testMode = CoreGL::Logger::getEnableTestMode();
    if (!testMode && !parameters.enableAdaptivity && parameters.followRefinedInputs) {
        for (auto const& volume : volumes) scanTolerance<BinaryTraits>(*volume, decisions);
        for (auto const& volume : volumes) scanTolerance<QuinaryTraits>(*volume, decisions);
    }
    if (!decisions.forcedAdaptivity) decisions.maxRelativeError = parameters.maxRelativeError;
    if (CoreGL::Logger::verboseLevel() > 1)
        std::cout << "Enable forced adaptivity = " << decisions.forcedAdaptivity << " " << ", enableTestMode = " << testMode
                  << "\nmaxRelativeError = " << decisions.maxRelativeError << std::endl;
    decisions.adaptive = parameters.enableAdaptivity || decisions.forcedAdaptivity;
    decisions.outputTraits24 = decisions.adaptive;
    for (auto const& volume : volumes) scanInput<BinaryTraits>(*volume, decisions.adaptive, decisions);
    for (auto const& volume : volumes) scanInput<QuinaryTraits>(*volume, decisions.adaptive, decisions);
    if (parameters.enableAdaptivity && parameters.adaptiveVoxelScale > 0.0f) decisions.outputVoxelSize *= parameters.adaptiveVoxelScale;
    decisions.outputTraits24 = parameters.binary.value_or(decisions.outputTraits24);
    decisions.maxError = decisions.maxRelativeError * decisions.outputVoxelSize * decisions.referenceLength;
    if (parameters.maxError) useMaxError(*parameters.maxError, decisions);
    report(decisions);
    return decisions;
}

}  // namespace tilegrid
