#pragma once
#include "TilegridOps/algorithms/splat.h"
#include "TilegridOps/host/array.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/container.h"

#include <algorithm>
#include <cmath>
#include <compare>
#include <vector>

/// Points as splatting sees them: where they are, how far they reach, and with what weight.
namespace tilegrid::splatting {

using namespace OST::TileTree3D;
using OST::int64;

enum class KernelKind { kLinear, kQuadratic };

inline double kernelWeight(KernelKind kind, double q)
{
    using namespace VolumeGL::TileTree3D::Splat;
    return kind == KernelKind::kLinear ? LinearKernel::weight(q) : QuadraticKernel::weight(q);
}

/// The parameters of `splatPoints`, with what stands for a missing one filled in.
struct Settings {
    KernelKind kernel = KernelKind::kLinear;
    double radius, minVoxels, maxVoxels, scale;
    int depthCount;
    bool normalize;

    Settings(KernelKind kind, float r, float least, float most, float factor, int depths, bool mean)
        : kernel(kind), radius(r), minVoxels(least > 1 ? least : 1), maxVoxels(most > 0 ? std::max(double(most), minVoxels) : INFINITY),
          scale(factor == 0 || std::isnan(factor) ? 1 : factor), depthCount(std::max(depths, 1)), normalize(mean)
    {
    }
    /// Radius of a point in finest voxels.
    /// \param widest  of tile space, in the same; no radius is larger
    double reach(float own, double voxelSize, double widest) const
    {
        double voxels = radius * own / voxelSize;
        if (!(voxels > 0)) voxels = 1;
        return std::min(std::clamp(voxels, minVoxels, maxVoxels), widest);
    }
};

/// What one point touches: sites of one depth, counted per axis from the low end of tile space.
struct Footprint {
    /// -1: none.
    std::int32_t depth = -1;
    std::int32_t first[3], last[3];
    /// Position and radius in voxels of the depth.
    double place[3], radius;
    /// What weights are multiplied with.
    double factor = 1;

    /// Weights along an axis of the sites `from` to `to`, which lie in the footprint.
    void weights(KernelKind kernel, int axis, std::int32_t from, std::int32_t to, double* out) const
    {
        const double inverse = 1 / radius;
        for (std::int32_t n = from; n <= to; ++n) *out++ = kernelWeight(kernel, std::abs(double(n) - place[axis]) * inverse);
    }
    double weightSum(KernelKind kernel) const
    {
        double product = 1;
        for (int axis = 0; axis < 3; ++axis) {
            double sum = 0;
            for (std::int32_t n = first[axis]; n <= last[axis]; ++n) sum += kernelWeight(kernel, std::abs(double(n) - place[axis]) / radius);
            product *= sum;
        }
        return product;
    }
    double sites() const
    {
        double product = depth < 0 ? 0 : 1;
        for (int axis = 0; axis < 3 && depth >= 0; ++axis) product *= double(last[axis]) - first[axis] + 1;
        return product;
    }
    /// Tiles of W^3 sites that have some of them.
    double tiles(int W) const
    {
        double product = depth < 0 ? 0 : 1;
        for (int axis = 0; axis < 3 && depth >= 0; ++axis) product *= double(last[axis] / W) - double(first[axis] / W) + 1;
        return product;
    }
};

/// \param own  the point's own factor on the radius
template <class Tr> Footprint footprintOf(Settings const& settings, float3 const& world, float own, double voxelSize, float3 const& offset)
{
    Footprint result;
    const double voxels = settings.reach(own, voxelSize, double(Tr::rangeMax) - Tr::rangeMin + 1);
    int up = 0;
    for (double r = voxels / 2; up < std::min(settings.depthCount - 1, Tr::maxDepth) && r >= Tr::branching; r /= Tr::branching) ++up;
    const int depth = Tr::maxDepth - up;
    const double width = Tr::voxelDataWidth(depth);
    const double sites = (double(Tr::rangeMax) - Tr::rangeMin + 1) / width;
    result.radius = voxels / width;
    for (int axis = 0; axis < 3; ++axis) {
        const double place = (double(world[axis]) / voxelSize - Tr::rangeMin) / width - double(offset[axis]);
        if (!(place >= -0.5 && place < sites)) return result;
        result.place[axis] = place;
        result.first[axis] = std::int32_t(std::max(0.0, std::ceil(place - result.radius)));
        result.last[axis] = std::int32_t(std::min(sites - 1, std::floor(place + result.radius)));
        // Sites at the very rim have no weight.
        if (double(result.first[axis]) == place - result.radius) ++result.first[axis];
        if (double(result.last[axis]) == place + result.radius) --result.last[axis];
    }
    result.depth = depth;
    return result;
}

/// Tiles by depth and number per axis, each once: a hash table with open addressing.
class TileKeys {
public:
    struct Key {
        std::int32_t depth = -1, x = 0, y = 0, z = 0;
        friend auto operator<=>(Key const&, Key const&) = default;
    };
    TileKeys() : table_(1 << 12) {}
    std::size_t size() const { return count_; }
    void insert(Key const& key)
    {
        // Points come in groups.
        if (key == last_) return;
        last_ = key;
        std::size_t at = placeOf(key);
        while (table_[at].depth >= 0 && table_[at] != key) at = (at + 1) & (table_.size() - 1);
        if (table_[at] == key) return;
        table_[at] = key;
        if (2 * ++count_ > table_.size()) grow();
    }
    void appendTo(std::vector<Key>& keys) const
    {
        for (Key const& key : table_)
            if (key.depth >= 0) keys.push_back(key);
    }

private:
    std::size_t placeOf(Key const& key) const
    {
        std::uint64_t h = (std::uint64_t(std::uint32_t(key.x)) << 32 | std::uint32_t(key.y)) * 0x9e3779b97f4a7c15ull;
        h = (h ^ h >> 29 ^ std::uint64_t(std::uint32_t(key.z)) << 8 ^ std::uint64_t(key.depth)) * 0xbf58476d1ce4e5b9ull;
        return std::size_t(h >> 32) & (table_.size() - 1);
    }
    void grow()
    {
        std::vector<Key> keys;
        appendTo(keys);
        table_.assign(2 * table_.size(), Key());
        for (Key const& key : keys) {
            std::size_t at = placeOf(key);
            while (table_[at].depth >= 0) at = (at + 1) & (table_.size() - 1);
            table_[at] = key;
        }
    }
    std::vector<Key> table_;
    std::size_t count_ = 0;
    Key last_;
};

/// The arrays of a point cloud. Lengths are checked.
struct PointArrays {
    float3 const* positions = nullptr;
    /// Null: all 1.
    float const* radii = nullptr;
    int64 count = 0;

    /// False without positions, or with an array of radii of another length.
    bool take(Ostara::Object const& points)
    {
        auto const* places = points.get<Corvid::Array<float3>>(Ostara::Geometry::sPointPosition);
        if (!places) return false;
        positions = places->data();
        count = int64(places->size());
        auto const* own = points.get<Corvid::Array<float>>("point_radius");
        if (own && own->size() != places->size()) return false;
        if (own) radii = own->data();
        return true;
    }
    template <class Tr> Footprint footprint(int64 n, Settings const& settings, double voxelSize, float3 const& offset) const
    {
        return footprintOf<Tr>(settings, positions[n], radii ? radii[n] : 1.0f, voxelSize, offset);
    }
};

}  // namespace tilegrid::splatting
