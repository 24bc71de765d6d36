#pragma once

namespace tilegrid::io {

/// The direction from which a picture is taken, in degrees. At 0, 0 the camera looks along -z, with x to the right and y up.
struct View {
    /// How far the camera walks around the y axis, towards x. Finite.
    double azimuth = 0.0;
    /// How far it climbs from there, -90 to 90; at 90 it looks down and -z is up in the picture.
    double elevation = 0.0;
};

}  // namespace tilegrid::io
