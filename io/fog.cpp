#include "io/fog.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/error.h"
#include "io/plain_channel.h"
#include "io/text.h"
#include "io/volume_access.h"

#include <algorithm>
#include <cmath>

namespace tilegrid::io {

using namespace OST::TileTree3D;
using Ostara::Geometry::sVoxelFogDensity, Ostara::Geometry::sVoxelSignedDistance;

namespace {

float densityAt(float distance, float width)
{
    return distance != distance ? distance : std::clamp(-distance / width, 0.0f, 1.0f);
}

/// The fog of a level set, and the deepest place of that below the surface, as a positive distance.
template <class Tr> struct Fog {
    Corvid::MutablePtr<PlainChannel<Tr, float>> channel;
    float deepest = 0.0f;
};

template <class Tr, class C> Fog<Tr> makeFog(Container<Tr> const& tree, C const& distance, float width)
{
    constexpr OST::int64 kPart = 64;
    const float empty = 0.0f;
    Fog<Tr> fog;
    fog.channel = Corvid::makeMutable<PlainChannel<Tr, float>>(
        sVoxelFogDensity, &empty, kInitializeNone, /*poolBacked*/ false,
        /*callElementConstructor*/ true, distance.minDepth(), distance.depth());
    fog.channel->updateTilesAdded(tree);
    for (int depth = distance.minDepth(); depth <= distance.depth(); ++depth) {
        const OST::int64 count = tree.tileCount(depth);
        std::vector<float> deepest((count + kPart - 1) / kPart, 0.0f);
        parallel::loop(0, static_cast<OST::int64>(deepest.size()), 1, [&](OST::int64 begin, OST::int64 end) {
            for (OST::int64 n = begin * kPart; n < std::min(count, end * kPart); ++n) {
                const auto from = distance.tileData(n, depth);
                const auto to = fog.channel->tileData(n, depth);
                for (int flat = 0; from && to && flat < Tr::voxelCount; ++flat) {
                    const float value = from(cubeIndex(Tr::width, flat));
                    to(flat) = densityAt(value, width);
                    deepest[n / kPart] = std::max(deepest[n / kPart], -value);
                }
            }
        });
        for (const float part : deepest) fog.deepest = std::max(fog.deepest, part);
    }
    return fog;
}

template <class Tr> bool addFog(OST::Object& native, float width, bool keep, Corvid::RuntimeServices const& services)
{
    const auto tree = native.component<Container<Tr>>(Ostara::Geometry::sVoxelTileTree);
    if (!tree) return false;
    const auto add = [&]<class C>() {
        const auto distance = native.component<C>(sVoxelSignedDistance);
        Fog<Tr> fog = makeFog<Tr>(*tree, *distance, width);
        // Distances that were cut off at the band's half width, not those of a thin body, end there to the bit.
        if (fog.deepest < width && fog.deepest == distance->defaultValue())
            services.message(Severity::kWarning,
                             "the distances end " + number(fog.deepest) + " below the surface, so the density ends at "
                                 + number(fog.deepest / width) + ": a smaller width reaches 1");
        native.putComponent(std::move(fog.channel));
    };
    if (!tryLayouts<Tr, float>(native, sVoxelSignedDistance, add))
        throw InputError("the volume has no signed distance (a float property '" + sVoxelSignedDistance.str()
                         + "') to make fog from");
    Corvid::Ptr<OST::Component> removed;
    if (!keep) native.removeComponent(sVoxelSignedDistance, removed);
    return true;
}

}  // namespace

Corvid::Ptr<Ostara::Object> fogFromLevelSet(Corvid::Ptr<Ostara::Object> volume, float width, bool keep,
                                            Corvid::RuntimeServices const& services)
{
    if (!(width > 0.0f) || !std::isfinite(width))
        throw InputError("the width of the fog is " + number(width) + ": give a positive number");
    const auto object = Corvid::toMutable(volume);
    const auto native =
        object ? Ostara::Geometry::move_object_to_ost_volume(*object) : Corvid::MutablePtr<OST::Object>();
    if (!native) throw InputError("the object holds no volume");
    if (!addFog<BinaryTraits>(*native, width, keep, services) && !addFog<QuinaryTraits>(*native, width, keep, services))
        throw InputError("the object holds no tile tree");
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

}  // namespace tilegrid::io
