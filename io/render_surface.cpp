#include "io/render_parts.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/error.h"
#include "io/render_light.h"
#include "io/render_shading.h"
#include "io/surface_tracer.h"
#include "io/volume_access.h"

#include <optional>

namespace tilegrid::io {

using namespace OST::TileTree3D;
using OST::int64;

namespace {

/// What a ray meets. Lengths are in tile space.
struct Seen {
    bool any = false;
    double t = 0.0;
    float3 normal;
    int depth = 0;
    float voxelWidth = 1.0f;
    /// Of the property that colours; only the components that it has.
    std::array<float, 3> value{};
};

/// How much of sky and lamp is seen from a place.
struct Openness {
    float sky = 1.0f, lamp = 1.0f;
};

/// What the solid fills of a picture: around each voxel inside, a ball of the size of its distance lies inside too.
template <class Tr>
Frame frameOf(Camera const& camera, Container<Tr> const& tree, VoxelOffsetType offset,
              PlainChannel<Tr, float> const& distance)
{
    using Tile = typename Container<Tr>::Tile;
    constexpr int64 kPart = 64;
    const double3 shift(voxelOffset(offset));
    Frame frame;
    for (int depth = 0; depth <= tree.deepestDepth(); ++depth) {
        const int64 count = tree.tileCount(depth);
        const double width = Tr::voxelDataWidth(depth);
        std::vector<Frame> parts(static_cast<std::size_t>((count + kPart - 1) / kPart));
        parallel::loop(0, static_cast<int64>(parts.size()), 1, [&](int64 begin, int64 end) {
            for (int64 n = begin * kPart; n < std::min(count, end * kPart); ++n) {
                auto const& tile = tree.tile(n, depth);
                const auto values = distance.tileData(n, depth);
                for (int flat = 0; values && flat < Tr::voxelCount; ++flat) {
                    const int3 ijk = cubeIndex(Tr::width, flat);
                    if (!(values(flat) < 0.0f) || !tile.isLeaf(Tile::voxelChildIJK(ijk.x, ijk.y, ijk.z))) continue;
                    camera.add(parts[std::size_t(n / kPart)], double3(tile.tijk()) + width * (double3(ijk) + shift),
                               -values(flat) / double(tree.voxelSize()));
                }
            }
        });
        for (Frame const& part : parts) frame.add(part);
    }
    return frame;
}

/// The camera, close to what there is to see.
template <class Tr>
Camera cameraFor(Container<Tr> const& tree, VoxelOffsetType offset, PlainChannel<Tr, float> const& distance,
                 double3 const& low, double3 const& high, RenderOptions const& options, PictureRoom room)
{
    Camera camera(low, high, options.view);
    Frame box;
    for (int corner = 0; corner < 8; ++corner)
        camera.add(box, {corner & 1 ? high.x : low.x, corner & 2 ? high.y : low.y, corner & 4 ? high.z : low.z});
    // The surface lies in both.
    Frame frame = frameOf(camera, tree, offset, distance);
    frame = {std::max(frame.left, box.left), std::min(frame.right, box.right), std::max(frame.low, box.low),
             std::min(frame.high, box.high)};
    camera.fit(frame.empty() ? box : frame, room.width, room.height);
    return camera;
}

/// Follows rays and draws. Rows are independent of each other in every pass.
template <class Tr> class SurfacePainter {
public:
    SurfacePainter(Container<Tr> const& tree, VoxelTopology<Tr> const& topology,
                   PlainChannel<Tr, float> const& distance, double3 const& low, double3 const& high,
                   PropertyReaders const& readers, RenderOptions const& options, PictureRoom room)
        : tree_(tree),
          topology_(topology),
          distance_(distance),
          low_(low),
          high_(high),
          readers_(readers),
          options_(options),
          camera_(cameraFor(tree, topology.offsetType(), distance, low, high, options, room)),
          lamps_(camera_),
          reach_(kSkyReach * length(high - low)),
          seen_(static_cast<std::size_t>(camera_.width()) * camera_.height())
    {}

    Rendered paint()
    {
        forRows([this](Tools const& tools, int y) {
            for (int x = 0; x < camera_.width(); ++x) seen_[at(x, y)] = look(tools, x + 0.5, y + 0.5);
        });
        if (options_.colour == SurfaceColour::kProperty) range_ = rangeSeen();
        std::vector<Openness> rough(seen_.size());
        if (options_.colour != SurfaceColour::kNormal) {
            forRows([&](Tools const& tools, int y) {
                for (int x = 0; x < camera_.width(); ++x)
                    if (seen_[at(x, y)].any) rough[at(x, y)] = opennessAt(tools, x, y);
            });
            // Once around a pixel's lower corner, once around its upper one: the second takes the edges off the first.
            rough = smoothed(rough, -kSquare / 2);
            rough = smoothed(rough, 1 - kSquare / 2);
        }
        open_ = std::move(rough);
        Image image{camera_.width(), camera_.height(), std::vector<std::uint8_t>(3 * seen_.size())};
        forRows([&](Tools const& tools, int y) {
            for (int x = 0; x < camera_.width(); ++x)
                image.set(x, y,
                          toBytes(isEdge(x, y) ? edgeLight(tools, x, y)
                                               : lightOf(seen_[at(x, y)], open_[at(x, y)], x + 0.5, y + 0.5)));
        });
        Rendered result{std::move(image), {}, range_};
        std::vector<bool> met(std::size_t(tree_.deepestDepth()) + 1);
        for (Seen const& seen : seen_)
            if (seen.any) met[std::size_t(seen.depth)] = true;
        for (int depth = tree_.deepestDepth(); depth >= 0; --depth)
            if (met[std::size_t(depth)]) result.voxelSizes.push_back({tree_.deepestDepth() - depth, Tr::voxelDataWidth(depth) * double(tree_.voxelSize())});
        return result;
    }

private:
    /// What hides the sky counts up to this share of the content's diagonal.
    static constexpr double kSkyReach = 0.12;
    /// Rays across a pixel, along each side, where one alone would leave a jagged edge.
    static constexpr int kEdgeRays = 4;

    /// What a thread works with.
    struct Tools {
        SurfaceTracer<Tr> tracer;
        std::unique_ptr<PlaceReader> reader;
        mutable std::vector<double> components;
    };

    template <class Row> void forRows(Row const& row) const
    {
        parallel::loop(0, camera_.height(), 4, [&](int64 begin, int64 end) {
            const Tools tools{SurfaceTracer<Tr>(tree_, topology_, distance_),
                              readers_.components > 0 ? readers_.make() : nullptr,
                              std::vector<double>(static_cast<std::size_t>(readers_.components))};
            for (int64 y = begin; y < end; ++y) row(tools, static_cast<int>(y));
        });
    }
    std::size_t at(int x, int y) const { return static_cast<std::size_t>(y) * camera_.width() + x; }

    /// The part of a ray that can meet the surface. \return whether there is one
    bool clip(Ray const& ray, double& from, double& to) const
    {
        // Crossings on edges bound a linear form among voxels of one size; where sizes meet it may go a little further.
        return ray.clip(low_ - double3(kBulge), high_ + double3(kBulge), from, to);
    }

    Seen look(Tools const& tools, double x, double y) const
    {
        const Ray ray = camera_.ray(x, y);
        Seen seen;
        double from = 0.0, to = std::numeric_limits<double>::infinity();
        typename SurfaceTracer<Tr>::Hit hit;
        if (!clip(ray, from, to) || !tools.tracer.trace(ray, from, to, hit)) return seen;
        const double3 toCamera = -ray.direction;
        double3 normal = tools.tracer.normalAt(hit.place, hit.voxelWidth, toCamera);
        // The inside of a cut shows its back.
        if (dot(normal, toCamera) < 0.0 && hit.t == from) normal = toCamera;
        seen = {true, hit.t, float3(normal), hit.depth, static_cast<float>(hit.voxelWidth), {}};
        if (tools.reader) {
            tools.reader->read(float3(hit.place), tools.components.data());
            if (readers_.components == 3)
                for (std::size_t c = 0; c < 3; ++c) seen.value[c] = static_cast<float>(tools.components[c]);
            else
                seen.value[0] = static_cast<float>(sizeOf(tools.components));
        }
        return seen;
    }

    static double sizeOf(std::vector<double> const& components)
    {
        if (components.size() == 1) return components.front();
        double sum = 0.0;
        for (const double c : components) sum += c * c;
        return std::sqrt(sum);
    }

    ValueRange rangeSeen() const
    {
        constexpr float kInfinity = std::numeric_limits<float>::infinity();
        ValueRange range{kInfinity, -kInfinity};
        const std::size_t shown = readers_.components == 3 ? 3 : 1;
        for (Seen const& seen : seen_)
            for (std::size_t c = 0; seen.any && c < shown; ++c)
                if (std::isfinite(seen.value[c]))
                    range = {std::min(range.low, seen.value[c]), std::max(range.high, seen.value[c])};
        if (!(range.low <= range.high) || (shown == 3 && range.low >= 0.0f && range.high <= 1.0f)) return {};
        return range;
    }

    Openness opennessAt(Tools const& tools, int x, int y) const
    {
        Seen const& seen = seen_[at(x, y)];
        const double3 normal(seen.normal);
        // Far enough outside for the ray's own surface not to be met again.
        const Ray ray = camera_.ray(x + 0.5, y + 0.5);
        const double3 start = ray.at(seen.t) + kLift * seen.voxelWidth * normal;
        const auto acrossNormal = across(normal);
        double sky = 0.0, lamp = 0.0, where = 0.0;
        for (int n = 0; n < kSkyRays; ++n) {
            // Directions as a matt surface weighs them: from the disc below them.
            const DiscPlace disc(x, y, n, kSkyRays);
            const double height = std::sqrt(std::max(0.0, 1.0 - disc.u * disc.u - disc.v * disc.v));
            const Ray probe{start, disc.u * acrossNormal[0] + disc.v * acrossNormal[1] + height * normal};
            double from = 0.0, to = reach_;
            sky += clip(probe, from, to) && tools.tracer.meets(probe, from, to, where) ? where / reach_ : 1.0;
        }
        const auto acrossLamp = across(lamps_.key());
        for (int n = 0; n < kLampRays; ++n) {
            const DiscPlace disc(x, y, n, kLampRays);
            const double3 way = lamps_.key() + (Lamps::kKeyRadius * disc.u) * acrossLamp[0]
                + (Lamps::kKeyRadius * disc.v) * acrossLamp[1];
            const Ray probe{start, (1.0 / length(way)) * way};
            double from = 0.0, to = std::numeric_limits<double>::infinity();
            if (dot(probe.direction, normal) <= 0.0) continue;
            lamp += !(clip(probe, from, to) && tools.tracer.meets(probe, from, to, where));
        }
        return {static_cast<float>(sky / kSkyRays), static_cast<float>(lamp / kLampRays)};
    }

    /// The mean over the square of pixels that begins `first` beside each, of those that show the same part of the surface.
    std::vector<Openness> smoothed(std::vector<Openness> const& rough, int first) const
    {
        std::vector<Openness> smooth(rough.size());
        forRows([&](Tools const&, int y) {
            for (int x = 0; x < camera_.width(); ++x) {
                Seen const& seen = seen_[at(x, y)];
                Openness sum{0.0f, 0.0f};
                float weight = 0.0f;
                for (int n = 0; seen.any && n < kSquare * kSquare; ++n) {
                    const int i = x + first + n % kSquare, j = y + first + n / kSquare;
                    if (!isPixel(i, j) || !samePart(seen, seen_[at(i, j)])) continue;
                    sum.sky += rough[at(i, j)].sky, sum.lamp += rough[at(i, j)].lamp, weight += 1.0f;
                }
                if (weight > 0.0f) smooth[at(x, y)] = {sum.sky / weight, sum.lamp / weight};
            }
        });
        return smooth;
    }

    bool isPixel(int x, int y) const { return x >= 0 && y >= 0 && x < camera_.width() && y < camera_.height(); }

    bool samePart(Seen const& a, Seen const& b) const
    {
        // Up to four pixels apart on a surface seen at 80 degrees.
        constexpr double kSteep = 24.0;
        return a.any == b.any
            && (!a.any || (dot(a.normal, b.normal) > 0.9f && std::abs(a.t - b.t) < kSteep * camera_.footprint(a.t)));
    }

    /// Whether a neighbour shows so much else that one ray for the pixel leaves a jagged edge.
    bool isEdge(int x, int y) const
    {
        Seen const& here = seen_[at(x, y)];
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
                const int i = x + dx, j = y + dy;
                if (!isPixel(i, j)) continue;
                Seen const& there = seen_[at(i, j)];
                if (!samePart(here, there) || (options_.colour == SurfaceColour::kDepth && here.depth != there.depth))
                    return true;
            }
        return false;
    }

    Light edgeLight(Tools const& tools, int x, int y) const
    {
        Light sum;
        for (int n = 0; n < kEdgeRays * kEdgeRays; ++n) {
            const double px = x + (n % kEdgeRays + 0.5) / kEdgeRays, py = y + (n / kEdgeRays + 0.5) / kEdgeRays;
            const Seen seen = look(tools, px, py);
            sum += lightOf(seen, seen.any ? opennessNear(seen, x, y) : Openness(), px, py);
        }
        return (1.0f / (kEdgeRays * kEdgeRays)) * sum;
    }

    /// That of the pixel that shows what is most like the place, this one before others.
    Openness opennessNear(Seen const& seen, int x, int y) const
    {
        Openness best;
        double least = std::numeric_limits<double>::infinity();
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
                const int i = x + dx, j = y + dy;
                if (!isPixel(i, j) || !seen_[at(i, j)].any) continue;
                Seen const& there = seen_[at(i, j)];
                const double unlike = std::abs(there.t - seen.t) / camera_.footprint(seen.t)
                    + 8.0 * (1.0 - dot(there.normal, seen.normal));
                if (unlike < least) least = unlike, best = open_[at(i, j)];
            }
        return best;
    }

    Light lightOf(Seen const& seen, Openness const& open, double x, double y) const
    {
        if (!seen.any) return backgroundAt(y / camera_.height());
        const double3 normal(seen.normal);
        if (options_.colour == SurfaceColour::kNormal)
            return fromBytes({127.5 + 127.5 * normal.x, 127.5 + 127.5 * normal.y, 127.5 + 127.5 * normal.z});
        const Ray ray = camera_.ray(x, y);
        return lamps_.shade(materialOf(seen, ray), normal, -ray.direction, open.sky, open.lamp);
    }

    Light materialOf(Seen const& seen, Ray const& ray) const
    {
        switch (options_.colour) {
        case SurfaceColour::kDepth: {
            constexpr float kInk = 0.55f;
            const auto line = static_cast<float>(borderShare(seen, ray));
            return (1.0f - kInk * line) * depthMaterial(tree_.deepestDepth() - seen.depth);
        }
        case SurfaceColour::kProperty: {
            if (readers_.components != 3) return scaleMaterial(range_.shareOf(seen.value[0]));
            std::array<double, 3> bytes;
            for (std::size_t c = 0; c < 3; ++c) {
                if (std::isnan(seen.value[c])) return scaleMaterial(seen.value[c]);
                bytes[c] = 255.0 * std::clamp(range_.shareOf(seen.value[c]), 0.0, 1.0);
            }
            return fromBytes(bytes);
        }
        default: return plainMaterial();
        }
    }

    /// How much of a pixel the lines cover along which the faces of tiles cut the surface. They fade where tiles are small.
    double borderShare(Seen const& seen, Ray const& ray) const
    {
        constexpr double kHalfWidth = 0.6;  // pixels
        const double3 place = ray.at(seen.t), normal(seen.normal);
        const double width = Tr::tileVoxelWidth(seen.depth), pixel = camera_.footprint(seen.t);
        // Where the rays of the pixels to the right and above meet the plane that touches the surface.
        const double facing = std::min(dot(ray.direction, normal), -0.02);
        const double3 right = camera_.right() - (dot(camera_.right(), normal) / facing) * ray.direction;
        const double3 up = camera_.up() - (dot(camera_.up(), normal) / facing) * ray.direction;
        double share = 0.0;
        for (int axis = 0; axis < 3; ++axis) {
            const double perPixel = pixel * std::hypot(right[axis], up[axis]);
            // A surface along the face would be ink all over.
            if (perPixel < 0.05 * pixel) continue;
            const double inTile = (place[axis] - Tr::rangeMin) / width;
            const double toFace = std::abs(inTile - std::round(inTile)) * width;
            const double visible = std::clamp((width / perPixel - 4.0) / 10.0, 0.0, 1.0);
            share = std::max(share, visible * std::clamp(kHalfWidth + 0.5 - toFace / perPixel, 0.0, 1.0));
        }
        return share;
    }

    /// What rays look beyond the bounds, in finest voxels.
    static constexpr double kBulge = 2.0;
    /// How far above the surface the rays for sky and lamp begin, in voxels of the place.
    static constexpr double kLift = 0.6;

    Container<Tr> const& tree_;
    VoxelTopology<Tr> const& topology_;
    PlainChannel<Tr, float> const& distance_;
    double3 low_, high_;
    PropertyReaders const& readers_;
    RenderOptions const& options_;
    Camera camera_;
    Lamps lamps_;
    double reach_;
    ValueRange range_;
    std::vector<Seen> seen_;
    std::vector<Openness> open_;
};

template <class Tr>
Rendered paintSurface(Ostara::Object const& volume, Container<Tr> const& tree, VoxelTopology<Tr> const& topology,
                   PlainChannel<Tr, float> const& distance, RenderOptions const& options, PictureRoom room)
{
    const PropertyReaders readers = colourReaders(volume, options);
    Ostara::Math::bbox<float3, float> box;
    Ostara::GeometryAlgorithms::getVolumeBounds(volume, box);
    const double perVoxel = 1.0 / tree.voxelSize();
    const double3 low = perVoxel * double3(box.min), high = perVoxel * double3(box.max);
    if (!(length(high - low) > 0.0) || !std::isfinite(length(high - low)))
        throw InputError("the level set has no surface to draw");
    return SurfacePainter<Tr>(tree, topology, distance, low, high, readers, options, room).paint();
}

}  // namespace

Rendered renderSurface(Ostara::Object const& volume, RenderOptions const& options, PictureRoom room)
{
    return withTree(
        volume, [&]<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const& topology) {
            std::optional<Rendered> result;
            const bool found = withPlainFloats<Tr>(native, tree, Ostara::Geometry::sVoxelSignedDistance, [&](auto const& distance) {
                result = paintSurface<Tr>(volume, tree, topology, distance, options, room);
            });
            if (!found)
                throw InputError("the volume has no signed distance (a float property '"
                                 + Ostara::Geometry::sVoxelSignedDistance.str() + "') whose surface could be drawn");
            return std::move(*result);
        });
}

}  // namespace tilegrid::io
