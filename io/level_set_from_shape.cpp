#include "io/level_set_from_shape.h"

#include "io/error.h"
#include "io/level_set_build.h"
#include "io/text.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

double distanceTo(Sphere const& sphere, double3 const& place) { return length(place - sphere.centre) - sphere.radius; }

double distanceTo(Box const& box, double3 const& place)
{
    // How far the place lies beyond the nearer face of each pair; negative between them.
    double3 beyond, outside;
    for (int axis = 0; axis < 3; ++axis) {
        beyond[axis] = std::max(box.low[axis] - place[axis], place[axis] - box.high[axis]);
        outside[axis] = std::max(beyond[axis], 0.0);
    }
    const double largest = std::max({beyond.x, beyond.y, beyond.z});
    return largest < 0.0 ? largest : length(outside);
}

double distanceTo(Torus const& torus, double3 const& place)
{
    const double3 from = place - torus.centre;
    const double height = from[torus.axis];
    const double away = std::hypot(from[(torus.axis + 1) % 3], from[(torus.axis + 2) % 3]);
    // In the half plane that the place and the axis span, the solid is a disc, cut off at the axis.
    const double fromCircle = std::hypot(away - torus.radius, height);
    const double distance = fromCircle - torus.tube;
    // A disc that passes the axis has two corners there. Where the way out through its rim would end on the far side of
    // the axis, the nearer corner is the nearest place of the surface.
    const bool rimIsBeyondAxis =
        torus.tube > torus.radius && distance < 0.0 && fromCircle * torus.radius < torus.tube * (torus.radius - away);
    if (!rimIsBeyondAxis) return distance;
    return -std::hypot(away, std::abs(height) - std::sqrt((torus.tube - torus.radius) * (torus.tube + torus.radius)));
}

Shape scaled(Shape const& shape, double factor)
{
    struct Scale {
        double factor;
        Shape operator()(Sphere const& s) const { return Sphere{factor * s.centre, factor * s.radius}; }
        Shape operator()(Box const& b) const { return Box{factor * b.low, factor * b.high}; }
        Shape operator()(Torus const& t) const
        {
            return Torus{factor * t.centre, factor * t.radius, factor * t.tube, t.axis};
        }
    };
    return std::visit(Scale{factor}, shape);
}

/// The signed distance of a shape that is given in tile space.
class ShapeDistance final : public DistanceSource {
public:
    explicit ShapeDistance(Shape const& shape) : shape_(shape) {}

    Nearest nearest(double3 const& place, std::int32_t) const override
    {
        const double distance = signedDistance(shape_, place);
        return {distance * distance, 0};
    }
    bool anyWithin(double3 const& first, double spacing, int n, double reach, std::int32_t) const override
    {
        for (int at = 0; at < n * n * n; ++at)
            if (std::abs(signedDistance(shape_, placeOf(first, spacing, n, at))) <= reach) return true;
        return false;
    }
    void fill(double3 const& first, double spacing, int n, double unit, float* values) const override
    {
        for (int at = 0; at < n * n * n; ++at)
            values[at] = static_cast<float>(signedDistance(shape_, placeOf(first, spacing, n, at)) * unit);
    }

private:
    static double3 placeOf(double3 const& first, double spacing, int n, int at)
    {
        return {first.x + at % n * spacing, first.y + at / n % n * spacing, first.z + at / (n * n) * spacing};
    }
    Shape shape_;
};

double areaOf(double3 const& sides) { return 2.0 * (sides.x * sides.y + sides.y * sides.z + sides.z * sides.x); }

/// Area in a box, at most: of a convex surface no more than that of the box around the part, of a torus twice that.
double areaWithin(FinerBox const& finer, SurfaceExtent const& extent, double most)
{
    double3 sides;
    for (int axis = 0; axis < 3; ++axis)
        sides[axis] =
            std::max(0.0, std::min(extent.high[axis], finer.high[axis]) - std::max(extent.low[axis], finer.low[axis]));
    return std::min(extent.area, most * areaOf(sides));
}

void checkFinite(std::string const& name, char const* what, double3 const& place)
{
    for (int axis = 0; axis < 3; ++axis)
        if (!std::isfinite(place[axis]))
            throw InputError("the " + std::string(what) + " of the " + name + " is not finite");
}

void checkPositive(std::string const& name, char const* what, double length)
{
    if (!(length > 0.0) || !std::isfinite(length))
        throw InputError("the " + std::string(what) + " of the " + name + " is " + number(length)
                         + ": give a positive number");
}

SurfaceExtent checkedExtent(Sphere const& sphere)
{
    checkFinite("sphere", "centre", sphere.centre);
    checkPositive("sphere", "radius", sphere.radius);
    const double r = sphere.radius;
    return {"sphere", sphere.centre - double3(r), sphere.centre + double3(r), 4.0 * std::numbers::pi * r * r, {}};
}

SurfaceExtent checkedExtent(Box const& box)
{
    for (int axis = 0; axis < 3; ++axis)
        if (!(box.low[axis] < box.high[axis]) || !std::isfinite(box.low[axis]) || !std::isfinite(box.high[axis]))
            throw InputError("the box reaches from " + number(box.low[axis]) + " to " + number(box.high[axis])
                             + " along " + "xyz"[axis] + ": give its low corner as min and its high one as max");
    return {"box", box.low, box.high, areaOf(box.high - box.low), {}};
}

SurfaceExtent checkedExtent(Torus const& torus)
{
    checkFinite("torus", "centre", torus.centre);
    checkPositive("torus", "radius", torus.radius);
    checkPositive("torus", "tube", torus.tube);
    if (torus.axis < 0 || torus.axis > 2) throw InputError("the axis of a torus is 0, 1 or 2");
    double3 reach(torus.radius + torus.tube);
    reach[torus.axis] = torus.tube;
    // The part of the turned circle that lies on this side of the axis; all of it for a ring.
    const double end = std::acos(std::max(-torus.radius / torus.tube, -1.0));
    const double area = 4.0 * std::numbers::pi * torus.tube * (torus.radius * end + torus.tube * std::sin(end));
    return {"torus", torus.centre - reach, torus.centre + reach, area, {}};
}

template <class Tr> Corvid::Ptr<Ostara::Object> levelSet(Shape const& shape, LevelSetOptions const& options)
{
    SurfaceExtent extent = std::visit([](auto const& s) { return checkedExtent(s); }, shape);
    const double most = std::holds_alternative<Torus>(shape) ? 2.0 : 1.0;
    extent.areaIn = [&extent, most](FinerBox const& finer) { return areaWithin(finer, extent, most); };
    checkLevelSetOptions<Tr>(extent, options);
    return buildLevelSet<Tr>(ShapeDistance(scaled(shape, 1.0 / finestVoxel<Tr>(options))), options);
}

}  // namespace

double longestSide(Shape const& shape)
{
    const SurfaceExtent extent = std::visit([](auto const& s) { return checkedExtent(s); }, shape);
    const double3 sides = extent.high - extent.low;
    return std::max({sides.x, sides.y, sides.z});
}

double signedDistance(Shape const& shape, double3 const& place)
{
    return std::visit([&place](auto const& s) { return distanceTo(s, place); }, shape);
}

Corvid::Ptr<Ostara::Object> levelSetFromShape(Shape const& shape, LevelSetOptions const& options)
{
    return options.structure == Structure::kBinary ? levelSet<BinaryTraits>(shape, options)
                                                   : levelSet<QuinaryTraits>(shape, options);
}

}  // namespace tilegrid::io
