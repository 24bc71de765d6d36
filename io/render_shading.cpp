#include "io/render_shading.h"

#include <algorithm>
#include <cmath>

namespace tilegrid::io {

using Ostara::Math::double3;

namespace {

double encoded(double light)
{
    const double v = std::clamp(light, 0.0, 1.0);
    return v <= 0.0031308 ? 12.92 * v : 1.055 * std::pow(v, 1.0 / 2.4) - 0.055;
}

double decoded(double byte)
{
    const double v = byte / 255.0;
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

double3 unit(double3 const& v) { return (1.0 / length(v)) * v; }

Light times(Light const& a, Light const& b) { return {a.x * b.x, a.y * b.y, a.z * b.z}; }

}  // namespace

std::array<std::uint8_t, 3> toBytes(Light const& light)
{
    const auto byte = [](float v) { return static_cast<std::uint8_t>(std::lround(255.0 * encoded(v))); };
    return {byte(light.x), byte(light.y), byte(light.z)};
}

Light fromBytes(std::array<double, 3> const& bytes)
{
    return {float(decoded(bytes[0])), float(decoded(bytes[1])), float(decoded(bytes[2]))};
}

Light backgroundAt(double down)
{
    static const Light kAbove = fromBytes({246, 247, 249}), kBelow = fromBytes({205, 210, 218});
    const auto share = static_cast<float>(std::clamp(down, 0.0, 1.0));
    return (1.0f - share) * kAbove + share * kBelow;
}

Light fogBackgroundAt(double down)
{
    static const Light kAbove = fromBytes({118, 140, 172}), kBelow = fromBytes({184, 198, 214});
    const auto share = static_cast<float>(std::clamp(down, 0.0, 1.0));
    return (1.0f - share) * kAbove + share * kBelow;
}

Light fogMaterial()
{
    static const Light kWhite = fromBytes({246, 246, 244});
    return kWhite;
}

Light plainMaterial()
{
    static const Light kClay = fromBytes({222, 208, 190});
    return kClay;
}

Light depthMaterial(int coarser)
{
    static const std::array<Light, 8> kTones{
        fromBytes({104, 156, 208}), fromBytes({98, 190, 158}),  fromBytes({196, 202, 96}),  fromBytes({238, 168, 82}),
        fromBytes({222, 108, 94}),  fromBytes({176, 116, 190}), fromBytes({150, 150, 156}), fromBytes({130, 104, 84})};
    return kTones[static_cast<std::size_t>(std::clamp(coarser, 0, 7))];
}

Light scaleMaterial(double share)
{
    static const std::array<Light, 5> kStops{fromBytes({48, 44, 120}), fromBytes({36, 112, 156}),
                                             fromBytes({56, 172, 130}), fromBytes({176, 208, 74}),
                                             fromBytes({252, 230, 96})};
    if (std::isnan(share)) return fromBytes({255, 0, 255});
    const double place = 4.0 * std::clamp(share, 0.0, 1.0);
    const int first = std::min(static_cast<int>(place), 3);
    const auto part = static_cast<float>(place - first);
    return (1.0f - part) * kStops[std::size_t(first)] + part * kStops[std::size_t(first) + 1];
}

Lamps::Lamps(Camera const& camera)
    : key_(unit(-0.55 * camera.right() + 0.75 * camera.up() + 0.65 * camera.back())),
      fill_(unit(0.8 * camera.right() - 0.15 * camera.up() + 0.45 * camera.back())),
      up_(camera.up())
{}

Light Lamps::shade(Light const& material, double3 const& normal, double3 const& toCamera, double sky,
                   double keyShare) const
{
    static constexpr Light kSky{0.40f, 0.43f, 0.48f}, kGround{0.20f, 0.185f, 0.17f}, kKey{0.92f, 0.87f, 0.80f},
        kFill{0.09f, 0.10f, 0.13f};
    constexpr double kGloss = 0.05, kSharpness = 36.0;
    const auto above = static_cast<float>(0.5 + 0.5 * dot(normal, up_));
    const auto key = static_cast<float>(keyShare * std::max(dot(normal, key_), 0.0));
    const auto fill = static_cast<float>(std::max(dot(normal, fill_), 0.0));
    const Light falling =
        static_cast<float>(sky) * ((1.0f - above) * kGround + above * kSky + fill * kFill) + key * kKey;
    // A highlight of the lamp (Blinn 1977).
    const double3 halfWay = unit(key_ + toCamera);
    const auto glint =
        static_cast<float>(kGloss * keyShare * std::pow(std::max(dot(normal, halfWay), 0.0), kSharpness));
    return times(material, falling) + Light(glint);
}

Light Lamps::scatter(Light const& material, double toKey, double toSky)
{
    static constexpr Light kSky{0.34f, 0.38f, 0.46f}, kGround{0.10f, 0.10f, 0.10f}, kKey{0.86f, 0.82f, 0.76f};
    // Light that is scattered more than once reaches deeper (a second, weaker extinction: Wrenninge et al. 2013).
    constexpr double kDeeper = 0.25, kShareOfDeeper = 0.4;
    const auto left = [](double folds) {
        return static_cast<float>((1.0 - kShareOfDeeper) * std::exp(-folds) + kShareOfDeeper * std::exp(-kDeeper * folds));
    };
    return times(material, kGround + left(toKey) * kKey + left(toSky) * kSky);
}

}  // namespace tilegrid::io
