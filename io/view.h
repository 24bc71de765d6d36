#pragma once

namespace tilegrid::io {

/// The axis of the world that points up in a picture.
enum class UpAxis { kY, kZ };

/// The direction from which a picture is taken, in degrees. At 0, 0 the camera looks along -z, with x to the right and y up; with
/// `kZ` it looks along y, with x to the right and z up.
struct View {
    /// How far the camera walks around the axis that points up, to the right: towards x for the first quarter.
    double azimuth = 0.0;
    /// How far it climbs from there, -90 to 90; at 90 it looks down.
    double elevation = 0.0;
    UpAxis up = UpAxis::kY;
};

}  // namespace tilegrid::io
