#include "TilegridOps/algorithms/level_set_band.h"
#include "TilegridOps/algorithms/level_set_edit.h"
#include "TilegridOps/algorithms/level_set_parts.h"
#include "TilegridOps/algorithms/level_set_tiles.h"
#include "TilegridOps/algorithms/nan_sides.h"
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/dependent_values.h"
#include "TilegridOps/substrate/grading.h"
#include "TilegridOps/substrate/parallel.h"

#include <atomic>
#include <cmath>
#include <memory>

namespace VolumeGL::TileTree3D::LevelSet {

namespace {

using namespace OST::TileTree3D;
using OST::int64;
using Geometry::Volume::Sampler;
using Geometry::Volume::SamplerInterpretation;
using tilegrid::LevelSetBand;
using tilegrid::LevelSetParts;
namespace parallel = tilegrid::parallel;

constexpr int64 kTilesAtOnce = 64;
/// Half width of what is kept around the moved surface, in voxels.
constexpr float kBand = 3.0f;
constexpr int kMostSteps = 64;

template <class Tr> using FloatsOf = Channel<Tr, float, Tr::width, 0>;

template <class Tr, class Body> void forTiles(Container<Tr> const& tree, FloatsOf<Tr> const& channel, Body const& body)
{
    for (int depth = channel.minDepth(); depth <= std::min(channel.depth(), tree.deepestDepth()); ++depth)
        parallel::loop(0, tree.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) body(n, depth);
        });
}

/// Takes `distance` times the weight of the mask from all values.
template <class Tr>
void shift(Container<Tr> const& tree, FloatsOf<Tr>& levelSet, float distance, FloatsOf<Tr> const* mask, SamplerInterpretation interpretation)
{
    forTiles<Tr>(tree, levelSet, [&](int64 n, int depth) {
        const auto values = levelSet.tileData(n, depth);
        const auto weights = mask ? mask->tileData(n, depth) : ConstTileData<float, Tr::width, 0>();
        for (int v = 0; v < Tr::voxelCount; ++v) {
            const float weight = mask ? maskWeight(interpretation, weights ? weights(v) : mask->defaultValue()) : 1.0f;
            values(v) -= weight * distance;
        }
    });
}

/// The mask at the voxels of new tiles.
template <class Tr>
void sampleMask(Container<Tr> const& tree, TileList<Tr> const& added, Sampler<float> const& sampler, VoxelOffsetType offset, FloatsOf<Tr>& mask)
{
    const float3 shift = voxelOffset(offset);
    for (int depth = mask.minDepth(); depth <= mask.depth(); ++depth)
        parallel::loop(0, int64(added[depth].size()), kTilesAtOnce, [&](int64 begin, int64 end) {
            const auto accessor = tree.tileAccessor();
            for (int64 t = begin; t < end; ++t) {
                int3 const& place = added[depth][std::size_t(t)];
                const TreeIndex index = accessor.find(place.x, place.y, place.z, depth);
                if (index.depth != depth) continue;
                const auto values = mask.tileData(index);
                const double w = Tr::voxelDataWidth(depth), size = tree.voxelSize();
                for (int v = 0; v < Tr::voxelCount; ++v) {
                    const int3 at = cubeIndex(Tr::width, v);
                    values(v) = sampler.sample({float((place.x + (at.x + shift.x) * w) * size), float((place.y + (at.y + shift.y) * w) * size),
                                                float((place.z + (at.z + shift.z) * w) * size)});
                }
            }
        });
}

template <class Tr> bool hasBothSigns(Container<Tr> const& tree, FloatsOf<Tr> const& levelSet)
{
    using Tile = typename Container<Tr>::Tile;
    std::atomic<bool> inside{false}, outside{false};
    forTiles<Tr>(tree, levelSet, [&](int64 n, int depth) {
        Tile const& tile = tree.tile(n, depth);
        const auto values = levelSet.tileData(n, depth);
        for (int v = 0; v < Tr::voxelCount; ++v) {
            const int3 at = cubeIndex(Tr::width, v);
            if (tile.isLeaf(Tile::voxelChildIJK(at.x, at.y, at.z))) (values(v) < 0 ? inside : outside).store(true, std::memory_order_relaxed);
        }
    });
    return inside && outside;
}

/// One call: its arguments by name.
template <class Tr, class Logger> struct Offset {
    float distance;
    bool adaptTopology;
    OST::Object& object;
    Corvid::String const& maskName;
    Sampler<float> const* maskSampler;
    SamplerInterpretation interpretation;
    int quality;
    Logger const& logger;
    Corvid::String const& prefix;
    LevelSetParts<Tr>& parts;

    void run()
    {
        auto dofs = parts.dofs();
        tilegrid::giveNansSides<Tr>(*parts.tree, *parts.levelSet);
        auto band = std::make_unique<LevelSetBand<Tr>>(*parts.tree, *parts.topology, *parts.levelSet, &dofs);
        if (!band->hasSurface()) {
            logger.warn("Level set has no surface after offset.");
            return;
        }
        const bool masked = bool(object.template component<FloatsOf<Tr>>(maskName));
        if (adaptTopology)
            adapt(*band, masked);
        else if (band->leavesTiles(distance))
            logger.warn("Offset surface leaves the tiles.");
        band->writeDistances(*parts.tree, *parts.levelSet);
        band.reset();
        dofs = parts.dofs();
        move(dofs);
        restoreDependentValues(*parts.tree, *parts.levelSet, parts.topology->offsetType(), dofs, 0, Tr::maxDepth);
        if (!hasBothSigns<Tr>(*parts.tree, *parts.levelSet)) logger.warn("Level set has no surface after offset.");
    }

private:
    void adapt(LevelSetBand<Tr>& band, bool masked)
    {
        const auto timer = CoreGL::Logger::timer(prefix + "adapt_topology", nullptr);
        // A mask holds some places back: the surface may end up anywhere on the way.
        const tilegrid::BandTarget target{masked ? std::min(distance, 0.0f) : distance, masked ? std::max(distance, 0.0f) : distance, kBand};
        band.grow(target, parts.bytesPerTile());
        if (!masked && !band.passes(distance)) return;
        const bool mayRemove = !(parts.tree->maxRelativeRefinementError() > 0);
        Container<Tr> wanted("wanted", parts.tree->voxelSize());
        band.collect(target, /*keepAll*/ !mayRemove, wanted);
        if (tilegrid::isGradedTree(*parts.tree)) CoreGL::TileTree3D::gradeTileTree<Tr>(wanted, nullptr, nullptr, 0, Tr::maxDepth);
        parts.putLevelSet();
        TileList<Tr> added;
        tilegrid::changeTiles(*parts.tree, *parts.topology, object, wanted, mayRemove, added);
        parts.takeLevelSet();
        if (!masked || !maskSampler) return;
        auto mask = object.template extractComponent<FloatsOf<Tr>>(maskName);
        sampleMask<Tr>(*parts.tree, added, *maskSampler, parts.topology->offsetType(), *mask);
        object.putComponent(std::move(mask));
    }

    void move(DofChannel<Tr> const& dofs)
    {
        const auto timer = CoreGL::Logger::timer(prefix + "move", nullptr);
        const auto mask = object.template component<FloatsOf<Tr>>(maskName);
        const double finest = double(Tr::voxelDataWidth(parts.tree->deepestDepth())) * parts.tree->voxelSize();
        const int steps = quality >= 2 && mask ? int(std::clamp(std::ceil(std::fabs(distance) / finest), 1.0, double(kMostSteps))) : 1;
        for (int step = 0; step < steps; ++step) {
            shift<Tr>(*parts.tree, *parts.levelSet, distance / float(steps), mask.get(), interpretation);
            if (quality >= 1) parts.redistance(dofs, prefix + "redistance");
        }
    }
};

}  // namespace

template <class Tr, class Logger>
void offset(float offset, bool adaptTopology, OST::Object& object, Corvid::String const& treeName, Corvid::String const& topologyName,
            Corvid::String const& property, Corvid::String const& maskName, Sampler<float> const* maskSampler,
            SamplerInterpretation maskInterpretation, int quality, Logger const& logger, Corvid::String const& timerPrefix)
{
    LevelSetParts<Tr> parts(object, treeName, topologyName, property);
    if (!parts) return logger.error("Unable to offset level set.");
    const float size = parts.tree->voxelSize();
    if (size > 0 && std::isfinite(size) && std::isfinite(offset) && parts.tree->tileCount(-1) > 0)
        Offset<Tr, Logger>{offset, adaptTopology, object, maskName, maskSampler, maskInterpretation, quality, logger, timerPrefix, parts}.run();
    parts.putAll();
    if (object.hasComponentFromName<DofChannel<Tr>>(Ostara::Geometry::sVoxelDegreeOfFreedom))
        createDofs<Tr>(Ostara::Geometry::sVoxelDegreeOfFreedom, object);
}

TILEGRID_LEVEL_SET_OFFSET(, BinaryTraits)
TILEGRID_LEVEL_SET_OFFSET(, QuinaryTraits)

}  // namespace VolumeGL::TileTree3D::LevelSet
