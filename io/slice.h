#pragma once
#include "TilegridOps/host/object.h"
#include "io/image.h"
#include "io/sample.h"
#include "io/view.h"

#include <optional>
#include <string>

namespace tilegrid::io {

struct SliceOptions {
    /// 0, 1, 2: the plane is orthogonal to x, y, z.
    int axis = 2;
    /// Which axis of the world points up in the picture. y: planes are seen from the left (x), from above (y, with z downwards) and
    /// from the front (z). z: from the right, from the front, from above.
    UpAxis up = UpAxis::kY;
    /// Position of the plane between the low (0) and the high (1) side of the volume's content.
    double at = 0.5;
    /// Empty: the signed distance if there is one, else the fog density, else the first property.
    std::string property;
    /// Longer side in pixels, 16 to 16384.
    int size = 1024;
    /// How values between samples are made. None: the value of the nearest sample, as for types without a fraction always.
    std::optional<SampleMode> mode = SampleMode::kLinear;
    /// Each voxel shows this many values along an axis, each from the middle of its part, so that voxels can be told apart; 0: every
    /// pixel its own. At most 64.
    int cells = 0;
    /// Draws axes with ticks, a bar of the colours, and a line that names property and plane; lengths in world units. They take their room
    /// from `size`. Pictures of less than 240 pixels have none.
    bool legend = true;
};

/// One plane of a property, read in the finest tiles: diverging colours around zero, the zero line, and the tile borders by depth. A
/// property of several components is shown by its length. The same bytes for any number of threads.
/// \throws InputError for an object without a tile tree, a missing property (names the ones there are) or options out of range
Image sliceImage(Ostara::Object const& volume, SliceOptions const& options);

}  // namespace tilegrid::io
