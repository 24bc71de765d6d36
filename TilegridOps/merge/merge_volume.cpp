#include "TilegridOps/merge/merge_volume.h"

#include "TilegridOps/host/logger.h"
#include "TilegridOps/host/property_names.h"

#include <iostream>

namespace tilegrid {

using namespace OST::TileTree3D;
using Geometry::Volume::Properties::Mode;
using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelFogDensity;
using Ostara::Geometry::sVoxelSignedDistance;
using Ostara::Geometry::sVoxelTileTree;

namespace {

/// One volume on its way into the result.
template <class In, class Out> class VolumeMerge {
public:
    using Target = MergeTarget<Out>;
    VolumeMerge(OST::Object const& volume, MergeModes const& modes, Target& target)
        : volume_(volume), modes_(modes), target_(target), tree_(volume.component<Container<In>>(sVoxelTileTree)),
          topology_(volume.component<VoxelTopology<In>>(sVoxelComp)), verbose_(CoreGL::Logger::verboseLevel())
    {
    }

    void run()
    {
        if (!tree_ || !topology_) return;
        const bool levelSetPresent = holdsFloat(sVoxelSignedDistance), fogPresent = holdsFloat(sVoxelFogDensity);
        const auto names = foundProperties();
        mergeLevelSet(levelSetPresent, !names.empty());
        if (fogPresent) merge(sVoxelFogDensity, propertyMode(modes_.fogDensity));
        Mode mode = modes_.properties;
        if (mode == Mode::kAutomatic) mode = automaticMode(fogPresent, levelSetPresent, target_.winnerMask, modes_.fogDensity);
        for (Corvid::String const& name : names) merge(name, mode);
    }

private:
    using Property = typename Target::Property;

    /// Whether both this volume and the result hold the name as floats.
    bool holdsFloat(Corvid::String const& name) const
    {
        const auto found = target_.properties.find(name);
        return found != target_.properties.end() && found->second.kind.number == kFloatKind &&
               plainKindOf<In>(volume_, name).number == kFloatKind;
    }
    Corvid::Array<Corvid::String> foundProperties() const
    {
        Corvid::Array<Corvid::String> names;
        for (auto const& [name, property] : target_.properties) {
            if (name == sVoxelSignedDistance || name == sVoxelFogDensity) continue;
            if (!(plainKindOf<In>(volume_, name) == property.kind)) continue;
            names.push_back(name);
            if (verbose_ > 0) std::cout << "Found property " << name << std::endl;
        }
        if (verbose_ > 0) std::cout << "Found " << names.size() << " properties" << std::endl;
        return names;
    }
    TileReader<Out> reader(Corvid::String const& name) const
    {
        const auto channel = volume_.component<VoxelChannelCore>(name);
        std::unique_ptr<PointReader> points;
        firstKind([&]<class T>() {
            auto const* plain = dynamic_cast<Channel<In, T, In::width, 0> const*>(channel.get());
            if (!plain) return false;
            points = modes_.interpolation == kLinear ? linearReader<In, T>(*tree_, *topology_, *plain)
                                                     : cubicReader<In, T>(*tree_, *topology_, *plain, cubicMode(modes_.interpolation));
            return true;
        });
        return tileReader<In, Out>(*tree_, *topology_, *channel, std::move(points), target_.tree, target_.topology);
    }
    Property const& property(Corvid::String const& name) const { return target_.properties.find(name)->second; }
    /// Whether this is the first volume to bring the name; later ones are told so.
    bool isFirst(Corvid::String const& name) { return target_.mergedPropertyNames.insert(name).second; }

    void mergeLevelSet(bool present, bool hasProperties)
    {
        if (verbose_ > 1) std::cout << (present ? "Found level set" : "No level set found") << std::endl;
        if (!present) return;
        auto& channel = *property(sVoxelSignedDistance).channel;
        if (isFirst(sVoxelSignedDistance)) {
            if (verbose_ > 1) std::cout << "Resampling level set" << std::endl;
            target_.pass.resampleLevelSet(channel, reader(sVoxelSignedDistance));
            return;
        }
        if (modes_.properties == Mode::kAutomatic && hasProperties) target_.winnerMask = true;
        if (verbose_ > 1) std::cout << "Merging level set" << std::endl;
        target_.pass.mergeLevelSet(channel, reader(sVoxelSignedDistance), modes_.levelSet, target_.winnerMask);
    }
    void merge(Corvid::String const& name, Mode mode)
    {
        auto const& [channel, kind] = property(name);
        if (isFirst(name))
            target_.pass.resampleProperty(*channel, reader(name));
        else
            target_.pass.mergeProperty(*channel, reader(name), kind, mode, modes_.alpha);
    }

    OST::Object const& volume_;
    MergeModes const& modes_;
    Target& target_;
    Corvid::Ptr<Container<In>> tree_;
    Corvid::Ptr<VoxelTopology<In>> topology_;
    int verbose_;
};

}  // namespace

template <class In, class Out>
void mergeVolumeIntoOutput(OST::Object const& volume, MergeModes const& modes, MergeTarget<Out>& target)
{
    VolumeMerge<In, Out>(volume, modes, target).run();
}

template void mergeVolumeIntoOutput<BinaryTraits, BinaryTraits>(OST::Object const&, MergeModes const&, MergeTarget<BinaryTraits>&);
template void mergeVolumeIntoOutput<QuinaryTraits, BinaryTraits>(OST::Object const&, MergeModes const&, MergeTarget<BinaryTraits>&);
template void mergeVolumeIntoOutput<BinaryTraits, QuinaryTraits>(OST::Object const&, MergeModes const&, MergeTarget<QuinaryTraits>&);
template void mergeVolumeIntoOutput<QuinaryTraits, QuinaryTraits>(OST::Object const&, MergeModes const&, MergeTarget<QuinaryTraits>&);

}  // namespace tilegrid
