#include "io/render_parts.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/fog_shadow.h"
#include "io/render_shading.h"

#include <cmath>
#include <optional>
#include <span>

/// Light through fog, by ray marching with front-to-back compositing (Levoy 1990; Max 1995): each step scatters light of the lamp and the
/// sky to the camera, less what the fog took from it before, and takes a part of all that comes from behind. Two lattices hold
/// how much fog lies towards the lamp and the sky. Steps follow the voxel size of the tile that is read; tiles without fog in
/// or beside them are passed in one step.
namespace tilegrid::io {

using namespace OST::TileTree3D;
using OST::int64;

namespace {

constexpr int64 kTilesAtOnce = 64;

/// What there is to see, in tile space.
struct FogExtent {
    double3 low{std::numeric_limits<double>::infinity()}, high{-std::numeric_limits<double>::infinity()};
    float largest = 0.0f;
    ValueRange range{std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity()};

    void add(FogExtent const& other)
    {
        for (int axis = 0; axis < 3; ++axis) low[axis] = std::min(low[axis], other.low[axis]), high[axis] = std::max(high[axis], other.high[axis]);
        largest = std::max(largest, other.largest);
        range = {std::min(range.low, other.range.low), std::max(range.high, other.range.high)};
    }
};

double sizeOf(std::span<double const> components)
{
    if (components.size() == 1) return components.front();
    double sum = 0.0;
    for (const double c : components) sum += c * c;
    return std::sqrt(sum);
}

/// Calls `voxel(part, position, width, density)` for every leaf voxel with fog, `part` being the result of the tiles that are worked on
/// together, and adds the parts up in their order.
/// \param makeVoxel  gives each worker its `voxel`
template <class Result, class Tr, class MakeVoxel>
Result overFog(Container<Tr> const& tree, PlainChannel<Tr, float> const& density, double3 const& shift, MakeVoxel const& makeVoxel)
{
    using Tile = typename Container<Tr>::Tile;
    Result result;
    for (int depth = 0; depth <= tree.deepestDepth(); ++depth) {
        const int64 count = tree.tileCount(depth);
        const double width = Tr::voxelDataWidth(depth);
        std::vector<Result> parts(static_cast<std::size_t>((count + kTilesAtOnce - 1) / kTilesAtOnce));
        parallel::loop(0, static_cast<int64>(parts.size()), 1, [&](int64 begin, int64 end) {
            const auto voxel = makeVoxel();
            for (int64 n = begin * kTilesAtOnce; n < std::min(count, end * kTilesAtOnce); ++n) {
                auto const& tile = tree.tile(n, depth);
                const auto values = density.tileData(n, depth);
                for (int flat = 0; values && flat < Tr::voxelCount; ++flat) {
                    const int3 ijk = cubeIndex(Tr::width, flat);
                    if (!(values(flat) > 0.0f) || !tile.isLeaf(Tile::voxelChildIJK(ijk.x, ijk.y, ijk.z))) continue;
                    voxel(parts[std::size_t(n / kTilesAtOnce)], double3(tile.tijk()) + width * (double3(ijk) + shift), width, values(flat));
                }
            }
        });
        for (Result const& part : parts) result.add(part);
    }
    return result;
}

/// Which tiles hold fog, or lie beside such a tile, so that what is read between voxels may be fog. By depth and index.
template <class Tr> class FoggyTiles {
public:
    FoggyTiles(Container<Tr> const& tree, PlainChannel<Tr, float> const& density)
    {
        for (int depth = 0; depth <= tree.deepestDepth(); ++depth) {
            own_.emplace_back(std::size_t(tree.tileCount(depth)), std::uint8_t(0));
            parallel::loop(0, tree.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
                for (int64 n = begin; n < end; ++n) {
                    const auto values = density.tileData(n, depth);
                    for (int flat = 0; values && flat < Tr::voxelCount; ++flat)
                        if (values(flat) > 0.0f) own_.back()[std::size_t(n)] = 1;
                }
            });
        }
        const ConstTileAccessor<Tr> accessor(tree);
        // Children first, so that a tile knows of all below it.
        for (int depth = tree.deepestDepth(); depth > 0; --depth)
            for (int64 n = 0; n < tree.tileCount(depth); ++n)
                if (own_[std::size_t(depth)][std::size_t(n)]) markAt(accessor, tree.tile(n, depth).tijk(), depth - 1);
        around_ = own_;
        for (int depth = 0; depth <= tree.deepestDepth(); ++depth)
            parallel::loop(0, tree.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
                const ConstTileAccessor<Tr> neighbours(tree);
                for (int64 n = begin; n < end; ++n)
                    if (!own_[std::size_t(depth)][std::size_t(n)] && foggyBeside(neighbours, tree.tile(n, depth).tijk(), depth))
                        around_[std::size_t(depth)][std::size_t(n)] = 1;
            });
    }

    bool at(TreeIndex const& tile) const { return around_[std::size_t(tile.depth)][std::size_t(tile.index)] != 0; }

private:
    void markAt(ConstTileAccessor<Tr> const& accessor, int3 const& tijk, int depth)
    {
        if (const TreeIndex found = accessor.find(tijk.x, tijk.y, tijk.z, depth); found.valid())
            own_[std::size_t(found.depth)][std::size_t(found.index)] = 1;
    }
    bool foggyBeside(ConstTileAccessor<Tr> const& accessor, int3 const& tijk, int depth) const
    {
        const double width = Tr::tileVoxelWidth(depth);
        for (int n = 0; n < 27; ++n) {
            int3 cell;
            if (!cellOf<Tr>(double3(tijk) + width * double3(n % 3 - 1, n / 3 % 3 - 1, n / 9 - 1), cell)) continue;
            const TreeIndex found = accessor.find(cell.x, cell.y, cell.z, depth);
            if (found.valid() && own_[std::size_t(found.depth)][std::size_t(found.index)]) return true;
        }
        return false;
    }

    std::vector<std::vector<std::uint8_t>> own_, around_;
};

template <class Tr> class FogPainter {
public:
    FogPainter(Container<Tr> const& tree, VoxelTopology<Tr> const& topology, PlainChannel<Tr, float> const& density,
               PropertyReaders const& readers, RenderOptions const& options, PictureRoom room)
        : tree_(tree), readers_(readers), options_(options), sampler_(tree, topology, &density), foggy_(tree, density),
          extent_(extentOf(density, double3(voxelOffset(topology.offsetType())))),
          camera_(extent_.low, extent_.high, options.view), lamps_(camera_),
          toLamp_(extent_.low, extent_.high, lamps_.key()), toSky_(extent_.low, extent_.high, camera_.up())
    {
        const double3 size = extent_.high - extent_.low, shift(voxelOffset(topology.offsetType()));
        const double longest = std::max({size.x, size.y, size.z});
        extinction_ = kPartsOfSide * options.opacity / (longest * extent_.largest);
        longestStep_ = longest / kLeastSteps;
        const auto addFrame = [this](Frame& frame, double3 const& place, double width, float) { camera_.add(frame, place, width); };
        camera_.fit(overFog<Frame>(tree, density, shift, [&] { return addFrame; }), room.width, room.height);
        const auto makeReader = [this] {
            return [this, sampler = sampler_](double3 const& place) { return extinctionAt(sampler, place); };
        };
        toLamp_.fill(makeReader);
        toSky_.fill(makeReader);
    }

    Rendered paint() const
    {
        Rendered result{{camera_.width(), camera_.height(), std::vector<std::uint8_t>(std::size_t(3) * camera_.width() * camera_.height())},
                        {}, extent_.range};
        std::vector<std::uint32_t> depths(std::size_t(camera_.height()), 0u);
        parallel::loop(0, camera_.height(), 4, [&](int64 begin, int64 end) {
            Worker worker{sampler_, readers_.components > 0 ? readers_.make() : nullptr,
                          std::vector<double>(std::size_t(readers_.components)), 0u};
            for (int y = int(begin); y < end; ++y) {
                worker.depths = 0u;
                for (int x = 0; x < camera_.width(); ++x) result.image.set(x, y, toBytes(lightAt(worker, x + 0.5, y + 0.5)));
                depths[std::size_t(y)] = worker.depths;
            }
        });
        std::uint32_t seen = 0u;
        for (const std::uint32_t row : depths) seen |= row;
        for (int depth = tree_.deepestDepth(); depth >= 0; --depth)
            if (seen >> depth & 1u) result.voxelSizes.push_back({tree_.deepestDepth() - depth, Tr::voxelDataWidth(depth) * double(tree_.voxelSize())});
        return result;
    }

private:
    using Sampler = VoxelSamplerLinear<Tr, float, 10, float, float3, 0, 0, 1, 0>;
    /// `RenderOptions::opacity` holds for this part of the longest side.
    static constexpr double kPartsOfSide = 20.0;
    /// The length of a step in voxels, and the least number of steps along the longest side.
    static constexpr double kStep = 0.5, kLeastSteps = 128.0;
    /// By how many finest voxels a step goes beyond the end of a tile.
    static constexpr double kBeyond = 1.0 / 64.0;
    /// What is left of the light behind when a ray ends: less than a byte shows.
    static constexpr double kDark = 1.0 / 1024.0;
    static constexpr int kMostSteps = 100000;

    /// What a thread works with. Depths that its rays met fog in are bits.
    struct Worker {
        Sampler sampler;
        std::unique_ptr<PlaceReader> reader;
        std::vector<double> components;
        std::uint32_t depths;
    };

    FogExtent extentOf(PlainChannel<Tr, float> const& density, double3 const& shift) const
    {
        const auto addVoxel = [](FogExtent& part, double3 const& place, double width, float value) {
            for (int axis = 0; axis < 3; ++axis)
                part.low[axis] = std::min(part.low[axis], place[axis] - width), part.high[axis] = std::max(part.high[axis], place[axis] + width);
            if (std::isfinite(value)) part.largest = std::max(part.largest, value);
        };
        FogExtent extent = overFog<FogExtent>(tree_, density, shift, [&] { return addVoxel; });
        if (!(extent.largest > 0.0f)) throw InputError("the volume has no fog to draw: no density above 0");
        if (readers_.components == 0) return extent;
        const auto makeRange = [this] {
            return [this, reader = std::shared_ptr<PlaceReader>(readers_.make())](FogExtent& part, double3 const& place, double, float) {
                std::array<double, 16> values{};
                reader->read(float3(place), values.data());
                const std::span<double> all(values.data(), std::size_t(readers_.components));
                const double size = sizeOf(all);
                for (const double value : readers_.components == 3 ? std::span<double const>(all) : std::span<double const>(&size, 1))
                    if (std::isfinite(value)) part.range = {std::min(part.range.low, float(value)), std::max(part.range.high, float(value))};
            };
        };
        extent.range = overFog<FogExtent>(tree_, density, shift, makeRange).range;
        const bool asTheyAre = readers_.components == 3 && extent.range.low >= 0.0f && extent.range.high <= 1.0f;
        if (!(extent.range.low <= extent.range.high) || asTheyAre) extent.range = {};
        return extent;
    }

    double extinctionAt(Sampler const& sampler, double3 const& place) const
    {
        const double density = sampler.sampleLinear(float3(place), Tr::maxDepth, kTileSpace);
        return density > 0.0 ? extinction_ * std::min<double>(density, extent_.largest) : 0.0;
    }

    Light lightAt(Worker& worker, double x, double y) const
    {
        const Ray ray = camera_.ray(x, y);
        const Light behind = fogBackgroundAt(y / camera_.height());
        double t = 0.0, to = std::numeric_limits<double>::infinity(), left = 1.0;
        if (!ray.clip(extent_.low, extent_.high, t, to)) return behind;
        Light sum;
        for (int step = 0; step < kMostSteps && t < to && left > kDark; ++step) {
            const double3 place = ray.at(t);
            LocatedVoxel at;
            if (!worker.sampler.locateVoxel(float3(place), kTileSpace, Tr::maxDepth, at)) {
                t += 1.0;
                continue;
            }
            const int depth = at.treeIndex.depth;
            if (!foggy_.at(at.treeIndex)) {
                t = std::max(t, ray.leavesCell(place, Tr::tileVoxelWidth(depth), Tr::rangeMin)) + kBeyond;
                continue;
            }
            // No finer than what a pixel shows; no further than to where a finer tile may begin.
            double length = std::min(std::max(kStep * Tr::voxelDataWidth(depth), 0.5 * camera_.footprint(t)), longestStep_);
            if (depth < tree_.deepestDepth()) length = std::min(length, std::max(0.0, ray.leavesCell(place, Tr::tileVoxelWidth(depth + 1), Tr::rangeMin) - t) + kBeyond);
            const double3 middle = ray.at(t + 0.5 * length);
            const double through = std::exp(-length * extinctionAt(worker.sampler, middle));
            if (through < 1.0) {
                worker.depths |= 1u << depth;
                sum += float(left * (1.0 - through)) * Lamps::scatter(materialAt(worker, middle, depth), toLamp_.at(middle), toSky_.at(middle));
                left *= through;
            }
            t += length;
        }
        return sum + float(left) * behind;
    }

    Light materialAt(Worker& worker, double3 const& place, int depth) const
    {
        if (options_.colour == SurfaceColour::kDepth) return depthMaterial(tree_.deepestDepth() - depth);
        if (!worker.reader) return fogMaterial();
        worker.reader->read(float3(place), worker.components.data());
        if (readers_.components != 3) return scaleMaterial(extent_.range.shareOf(float(sizeOf(worker.components))));
        std::array<double, 3> bytes;
        for (std::size_t c = 0; c < 3; ++c) {
            if (std::isnan(worker.components[c])) return scaleMaterial(worker.components[c]);
            bytes[c] = 255.0 * std::clamp(extent_.range.shareOf(float(worker.components[c])), 0.0, 1.0);
        }
        return fromBytes(bytes);
    }

    Container<Tr> const& tree_;
    PropertyReaders const& readers_;
    RenderOptions const& options_;
    Sampler sampler_;
    FoggyTiles<Tr> foggy_;
    FogExtent extent_;
    Camera camera_;
    Lamps lamps_;
    FogShadow toLamp_, toSky_;
    /// E-folds per finest voxel and unit of density.
    double extinction_ = 0.0;
    double longestStep_ = 1.0;
};

}  // namespace

Rendered renderFog(Ostara::Object const& volume, RenderOptions const& options, PictureRoom room)
{
    if (options.colour == SurfaceColour::kNormal) throw InputError("fog has no normals to colour it by");
    const PropertyReaders readers = colourReaders(volume, options);
    return withTree(
        volume, [&]<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const& topology) {
            std::optional<Rendered> result;
            const bool found = withPlainFloats<Tr>(native, tree, Ostara::Geometry::sVoxelFogDensity, [&](auto const& density) {
                result = FogPainter<Tr>(tree, topology, density, readers, options, room).paint();
            });
            if (!found)
                throw InputError("the volume has no fog (a float property '" + Ostara::Geometry::sVoxelFogDensity.str() + "') to draw");
            return std::move(*result);
        });
}

}  // namespace tilegrid::io
