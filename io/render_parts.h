#pragma once
#include "io/camera.h"
#include "io/error.h"
#include "io/plain_channel.h"
#include "io/property_reader.h"
#include "io/render.h"
#include "io/volume_access.h"

#include <algorithm>
#include <array>
#include <limits>

/// What the ways of drawing a volume share.
namespace tilegrid::io {

/// The most pixels that the picture itself may take.
struct PictureRoom {
    int width = 0, height = 0;
};

/// The range of a property over what is seen.
struct ValueRange {
    float low = 0.0f, high = 1.0f;
    double shareOf(float value) const { return high > low ? (double(value) - low) / (double(high) - low) : 0.5; }
};

/// A picture, and what its legend tells.
struct Rendered {
    struct VoxelSize {
        /// Depths above the finest one in use, and the size in world units.
        int coarser;
        double size;
    };
    Image image;
    /// Of what is seen, the finest first.
    std::vector<VoxelSize> voxelSizes;
    ValueRange range;
};

/// \throws InputError for what cannot be drawn
Rendered renderSurface(Ostara::Object const& volume, RenderOptions const& options, PictureRoom room);
Rendered renderFog(Ostara::Object const& volume, RenderOptions const& options, PictureRoom room);

/// Readers of the property that colours; none if another thing does.
inline PropertyReaders colourReaders(Ostara::Object const& volume, RenderOptions const& options)
{
    if (options.colour != SurfaceColour::kProperty) return {};
    PropertyReaders readers = readersOf(volume, options.property, SampleMode::kLinear);
    if (readers.components == 0)
        throw InputError("property '" + options.property + "' has values without a fraction: nothing lies between two of them");
    return readers;
}

/// Calls `use` with a property of one float in the plain layout, if there is one in any layout.
template <class Tr, class Use>
bool withPlainFloats(OST::Object const& native, OST::TileTree3D::Container<Tr> const& tree, Corvid::String const& name, Use const& use)
{
    const auto plain = [&]<class C>() {
        const auto channel = native.component<C>(name);
        if constexpr (std::is_same_v<C, PlainChannel<Tr, float>>)
            use(*channel);
        else
            use(plainCopy<Tr>(tree, *channel));
    };
    return tryLayouts<Tr, float>(native, name, plain);
}

}  // namespace tilegrid::io
