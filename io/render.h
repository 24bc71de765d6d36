#pragma once
#include "TilegridOps/host/object.h"
#include "io/image.h"
#include "io/view.h"

#include <string>

namespace tilegrid::io {

/// What is drawn of a volume.
enum class RenderAs {
    /// The surface if there is a signed distance, else the fog.
    kAutomatic,
    kSurface,
    /// The property `voxel_fog_density`, as a cloud.
    kFog
};

enum class SurfaceColour {
    kPlain,
    /// By voxel size: the depth of the tile that is seen, with the borders of the tiles on surfaces.
    kDepth,
    /// The direction of the surface: x, y, z from -1 to 1 as red, green, blue from 0 to 255, without light. Not for fog.
    kNormal,
    kProperty
};

struct RenderOptions {
    /// Longer side in pixels, 16 to 4096; the other follows from the content.
    int size = 1024;
    View view{-30.0, 20.0};
    RenderAs as = RenderAs::kAutomatic;
    SurfaceColour colour = SurfaceColour::kPlain;
    /// For `kProperty`: one with a fraction. Three components are red, green and blue: as they are if all that is seen lies
    /// between 0 and 1, else from the least to the largest. Any other number of them is shown by its size, from the least to
    /// the largest that is seen (fog: that is where there is fog), on a scale from dark blue to yellow.
    std::string property;
    /// How opaque fog is: what passes its largest density along a twentieth of the content's longest side loses this many e-folds of
    /// its light. Positive and finite.
    double opacity = 1.5;
    /// Explains the colours beside the picture: voxel sizes in world units, or a bar of the property. It takes its room from `size`.
    /// Pictures of less than 240 pixels have none.
    bool legend = true;
};

/// A picture of a volume, lit from the left above. Surfaces: rays followed through the linear sampler, what other parts of the surface
/// hide of lamp and sky, and smooth edges. Fog: light that it scatters and takes away, summed from front to back in steps of half a
/// voxel of the tile that is read, with its own shadow. The same bytes for any number of threads.
/// \throws InputError for a volume without a signed distance or fog density of floats, without a surface or fog to draw, a property
///         that is not there or has no fraction, and options out of range
Image renderImage(Ostara::Object const& volume, RenderOptions const& options);

}  // namespace tilegrid::io
