#pragma once
#include "io/camera.h"

#include <array>
#include <cstdint>

namespace tilegrid::io {

/// Light, as sums add up: not as bytes of a picture hold it.
using Light = Ostara::Math::float3;

/// Bytes of a picture (sRGB, IEC 61966-2-1) from light and back.
std::array<std::uint8_t, 3> toBytes(Light const& light);
Light fromBytes(std::array<double, 3> const& bytes);

/// What lies behind the surface, from 0 at the upper to 1 at the lower side of the picture.
Light backgroundAt(double down);
/// The same behind fog, which is bright: dark enough to show it.
Light fogBackgroundAt(double down);
/// What the surface is made of.
Light plainMaterial();
Light fogMaterial();
/// One of a row of tones, that of the finest depth first.
Light depthMaterial(int coarser);
/// A scale from dark blue over green to yellow; 0 to 1. What is no number is magenta.
Light scaleMaterial(double share);

/// The lights of a picture, fixed to its camera.
class Lamps {
public:
    using double3 = Ostara::Math::double3;

    explicit Lamps(Camera const& camera);
    /// To the lamp that casts shadows, and how far it reaches to the sides of that.
    double3 const& key() const { return key_; }
    static constexpr double kKeyRadius = 0.16;

    /// What comes to the camera from a place of the surface.
    /// \param sky, keyShare  how much of the sky and of the lamp is seen from there, from 0 to 1
    Light shade(Light const& material, double3 const& normal, double3 const& toCamera, double sky,
                double keyShare) const;

    /// What fog scatters to the camera from a place of it.
    /// \param toKey, toSky  e-folds that light loses in the fog on its way from the lamp and from straight above
    static Light scatter(Light const& material, double toKey, double toSky);

private:
    double3 key_, fill_, up_;
};

}  // namespace tilegrid::io
