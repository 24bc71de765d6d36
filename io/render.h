#pragma once
#include "TilegridOps/host/object.h"
#include "io/image.h"
#include "io/view.h"

#include <string>

namespace tilegrid::io {

enum class SurfaceColour {
    kPlain,
    /// By the depth of the tile that holds the surface, with the borders of the tiles.
    kDepth,
    /// The direction of the surface: x, y, z from -1 to 1 as red, green, blue from 0 to 255, without light.
    kNormal,
    kProperty
};

struct RenderOptions {
    /// Longer side in pixels; the other follows from the content.
    int size = 1024;
    View view{-30.0, 20.0};
    SurfaceColour colour = SurfaceColour::kPlain;
    /// For `kProperty`: one with a fraction. Three components are red, green and blue: as they are if all that is seen lies
    /// between 0 and 1, else from the least to the largest. Any other number of them is shown by its size, from the least to
    /// the largest that is seen, on a scale from dark blue to yellow.
    std::string property;
};

/// A picture of the surface of a level set: rays followed through the linear sampler, a light from the left above, what other
/// parts of the surface hide of it and of the sky, and smooth edges. The same bytes for any number of threads.
/// \throws InputError for a volume without a signed distance of floats or without a surface, a property that is not there or
///         has no fraction, and options out of range
Image renderImage(Ostara::Object const& volume, RenderOptions const& options);

}  // namespace tilegrid::io
