#pragma once
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "support/jobs.h"
#include "support/site_oracle.h"

#include <bit>
#include <memory>

namespace tilegrid::test {

using OST::TileTree3D::LocatedVoxel;
using OST::TileTree3D::VoxelOffsetType;
using Ostara::Math::float3;

inline constexpr float kEpsilon = std::numeric_limits<float>::epsilon();

template <class Tr, class T = float, int N = 1>
using LinearSampler = OST::TileTree3D::VoxelSamplerLinear<Tr, T, N, float, float3, 0, 0, 1, 0>;
template <class Tr> using OneLayerSampler = OST::TileTree3D::VoxelSamplerLinear<Tr, float, 1, float, float3, 0, 0, 0, 1>;

/// Equal to the last bit.
inline bool sameBits(float a, float b) { return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b); }

using Point = std::array<double, 3>;
inline Point toPoint(float3 const& p) { return {p.x, p.y, p.z}; }

/// A tree, its topology and a channel of T with a known value in every voxel.
template <class Tr, class T = float> struct SampledVolume {
    using Set = TileSet<Tr>;
    using ChannelT = OST::TileTree3D::Channel<Tr, T, Tr::width, 0>;

    SampledVolume(Set const& tiles, VoxelOffsetType offset, VoxelFunction const& voxel, T const& outside = T(), int minDepth = 0,
                  int maxDepth = Tr::maxDepth, float voxelSize = 1.0f)
        : set(tiles), tree("tree", voxelSize), topology("voxels", offset)
    {
        addAll(set, tree);
        topology.update(tree);
        channel = std::make_unique<ChannelT>(channelOf<ChannelT>(tree, voxel, outside, minDepth, maxDepth));
    }
    template <int N = 1> LinearSampler<Tr, T, N> sampler() const { return {tree, topology, channel.get()}; }

    Set set;
    Tree<Tr> tree;
    OST::TileTree3D::VoxelTopology<Tr> topology;
    std::unique_ptr<ChannelT> channel;
};

/// A linear function of tile space, as the values of voxels whose samples lie as `offset` says.
struct LinearField {
    Point gradient{2, -3, 5};
    double atOrigin = 1;
    double operator()(Point const& p) const { return atOrigin + gradient[0] * p[0] + gradient[1] * p[1] + gradient[2] * p[2]; }
    template <class Tr> VoxelFunction voxels(int offset) const
    {
        return [field = *this, offset](TileKey const& key, int i, int j, int k) {
            const double w = double(TileSet<Tr>::voxelWidth(key.depth));
            const int site[3] = {i, j, k};
            Point p;
            for (int a = 0; a < 3; ++a) p[a] = double(key.low[a]) + w * (site[a] + (offset >> a & 1 ? 0.0 : 0.5));
            return field(p);
        };
    }
};

/// What a linear sampler should find, worked out in double from the set of tiles.
template <class Tr> class SampleOracle {
public:
    using Set = TileSet<Tr>;
    struct Sample {
        /// NaN if the stencil meets a place without a tile.
        double value = 0;
        int levels = 0;
        std::optional<TileKey> tile;
        Point fraction{};
    };
    explicit SampleOracle(Set const& set, int offset, VoxelFunction const& voxel = noise) : sites(set), set_(set)
    {
        sites.offset = offset;
        sites.voxel = voxel;
        sites.stepwise = true;
        sites.outside = std::numeric_limits<double>::quiet_NaN();
    }
    Sample at(Point const& p, int depth = Set::maxDepth)
    {
        Place place;
        for (int a = 0; a < 3; ++a) place[a] = static_cast<std::int64_t>(std::floor(p[a]));
        Sample sample;
        sample.value = sites.outside;
        sample.tile = set_.find(place, std::min(depth, sites.maxDepth));
        if (!sample.tile || sample.tile->depth < sites.minDepth) return sample;
        const std::int64_t w = Set::voxelWidth(sample.tile->depth);
        Place low;
        for (int a = 0; a < 3; ++a) {
            double local = (p[a] - double(sample.tile->low[a])) / double(w) - (sites.offset >> a & 1 ? 0.0 : 0.5);
            if (local > -1e-5 && local < 0) local = 0;
            const double site = std::min(std::floor(local), double(Tr::width - 1));
            low[a] = sample.tile->low[a] + static_cast<std::int64_t>(site) * w;
            sample.fraction[a] = local - site;
        }
        sample.value = 0;
        for (int c = 0; c < 8; ++c) {
            double weight = 1;
            Place site = low;
            for (int a = 0; a < 3; ++a) {
                weight *= c >> a & 1 ? sample.fraction[a] : 1 - sample.fraction[a];
                site[a] += (c >> a & 1) * w;
            }
            const auto found = sites.at(site, sample.tile->depth);
            sample.value += weight * found.value;
            sample.levels = std::max(sample.levels, found.levels);
        }
        return sample;
    }
    SiteOracle<Tr> sites;

private:
    Set const& set_;
};

/// A tree without holes in a box around the origin: coarse tiles all over it, finer ones down to the finest depth at random
/// places, so that jumps by faces, edges and corners occur; graded if asked.
template <class Tr> TileSet<Tr> refinedBox(std::uint64_t seed, bool graded)
{
    using Set = TileSet<Tr>;
    constexpr int coarse = Set::maxDepth - (Tr::branching == 2 ? 4 : 2);
    const std::int64_t reach = Set::tileWidth(coarse);
    Set set;
    set.addBox({-reach, -reach, -reach}, {reach - 1, reach - 1, reach - 1}, coarse);
    Random random(seed);
    for (int n = 0; n < 24; ++n) {
        Place place;
        for (std::int64_t& x : place) x = random.between(-reach / 2, reach / 2);
        const int depth = Set::maxDepth - static_cast<int>(random.below(Set::maxDepth - coarse));
        // Some pairs of neighbours, so that stencils also cross tiles of the same depth.
        set.add(place, depth);
        place[random.below(3)] += Set::tileWidth(depth);
        set.add(place, depth);
    }
    if (graded) gradeSet(set);
    return set;
}

/// Positions in and closely around tiles of the set from some depth on, some of them on faces and sites.
template <class Tr> std::vector<float3> positionsIn(TileSet<Tr> const& set, std::uint64_t seed, int count, int minDepth, double reach)
{
    Random random(seed);
    std::vector<TileKey> tiles;
    for (TileKey const& key : set.list())
        if (key.depth >= minDepth) tiles.push_back(key);
    std::vector<float3> positions;
    while (!tiles.empty() && static_cast<int>(positions.size()) < count) {
        TileKey const& key = tiles[static_cast<std::size_t>(random.below(std::int64_t(tiles.size())))];
        const double w = double(TileSet<Tr>::voxelWidth(key.depth));
        float3 p;
        bool inReach = true;
        for (int a = 0; a < 3; ++a) {
            const std::int64_t steps = random.oneIn(8) ? 2 : 1 << 12;
            p[a] = static_cast<float>(double(key.low[a]) + w * double(random.between(-steps, (Tr::width + 1) * steps)) / double(steps));
            inReach = inReach && std::fabs(p[a]) <= reach;
        }
        if (inReach) positions.push_back(p);
    }
    return positions;
}

}  // namespace tilegrid::test
