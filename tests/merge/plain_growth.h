#pragma once
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "merge/merge_volumes.h"

/// The tiles of an adaptive merge by a plain and slow way, for volumes of one structure and voxel size.
namespace tilegrid::test {

/// A level set as its own linear samples, in either structure.
class Field {
public:
    explicit Field(HostPtr const& volume) { open<BinaryTraits>(volume) || open<QuinaryTraits>(volume); }
    float operator()(float3 const& p) const { return read_(p); }

private:
    template <class Tr> bool open(HostPtr const& volume)
    {
        using Sampler = OST::TileTree3D::VoxelSamplerLinear<Tr, float, 1, float, float3, 0, 0, 1, 0>;
        const auto tree = treeIn<Tr>(volume);
        if (!tree) return false;
        const auto topology = volume->native()->component<VoxelTopology<Tr>>(sVoxelComp);
        const auto channel = channelIn<Tr>(volume);
        auto sampler = std::make_shared<Sampler>(*tree, *topology, channel.get());
        read_ = [tree, topology, channel, sampler](float3 const& p) { return sampler->sampleLinear(p); };
        return true;
    }
    std::function<float(float3 const&)> read_;
};

class Combination {
public:
    Combination(std::vector<HostPtr> const& volumes, LevelSetMode mode) : mode_(mode)
    {
        for (HostPtr const& volume : volumes) fields_.emplace_back(volume);
    }
    float operator()(float3 const& p) const
    {
        float result = fields_[0](p);
        for (std::size_t n = 1; n < fields_.size(); ++n) {
            const float v = fields_[n](p);
            result = mode_ == LevelSetMode::kUnion ? std::min(result, v) : std::max(result, mode_ == LevelSetMode::kDifference ? -v : v);
        }
        return result;
    }

private:
    std::vector<Field> fields_;
    LevelSetMode mode_;
};

/// The rule of growth, written down plainly for one lattice: nodes at low corners of voxels.
template <class Tr> class Rule {
public:
    using Set = TileSet<Tr>;
    Rule(Combination const& field, float size, float tolerance) : field_(field), size_(size), tolerance_(tolerance) {}

    bool isNear(TileKey const& tile, int cell) const
    {
        const TileKey child = Set::childOf(tile, cell);
        const float half = float(Set::cellWidth(tile.depth)) / 2 * size_;
        const float3 low = world(child.low);
        return 1.914f * size_ * float(Set::cellWidth(tile.depth)) > std::abs(field_({low.x + half, low.y + half, low.z + half}));
    }
    /// The largest difference between the tile's trilinear voxels and the field at the nodes of the child, or the first one above
    /// `enough`.
    float error(TileKey const& tile, int cell, float enough = std::numeric_limits<float>::max()) const
    {
        const TileKey child = Set::childOf(tile, cell);
        constexpr int steps = Tr::branching, voxels = Tr::cellVoxels;  // nodes of the child per voxel of the tile; its voxels in the cell
        const std::int64_t fine = Set::voxelWidth(child.depth), coarse = Set::voxelWidth(tile.depth);
        float corner[voxels + 1][voxels + 1][voxels + 1];
        for (int z = 0; z <= voxels; ++z)
            for (int y = 0; y <= voxels; ++y)
                for (int x = 0; x <= voxels; ++x)
                    corner[z][y][x] = field_(world({child.low[0] + x * coarse, child.low[1] + y * coarse, child.low[2] + z * coarse}));
        float largest = 0;
        for (int z = 0; z <= voxels * steps; ++z)
            for (int y = 0; y <= voxels * steps; ++y)
                for (int x = 0; x <= voxels * steps; ++x) {
                    const int i = std::min(x / steps, voxels - 1), j = std::min(y / steps, voxels - 1), k = std::min(z / steps, voxels - 1);
                    const float u = part(x - i * steps), v = part(y - j * steps), w = part(z - k * steps);
                    const auto row = [&](int b, int c) { return mixed(corner[k + c][j + b][i], corner[k + c][j + b][i + 1], u); };
                    const float value = mixed(mixed(row(0, 0), row(1, 0), v), mixed(row(0, 1), row(1, 1), v), w);
                    const Place node{child.low[0] + x * fine, child.low[1] + y * fine, child.low[2] + z * fine};
                    largest = std::max(largest, std::abs(value - field_(world(node))));
                    if (largest > enough) return largest;
                }
        return largest;
    }
    /// At the border, and where the root's last voxel reaches over it. Volumes of the same structure and size.
    bool atBorder(TileKey const& tile, int cell) const
    {
        const TileKey child = Set::childOf(tile, cell);
        for (int a = 0; a < 3; ++a)
            if (child.low[a] <= Set::rangeMin || child.low[a] + Set::tileWidth(child.depth) > Set::rangeMax + 1 - Set::voxelWidth(0)) return true;
        return false;
    }
    bool operator()(TileKey const& tile, int cell) const
    {
        if (tile.depth + 1 >= 2 && atBorder(tile, cell)) return false;
        return isNear(tile, cell) && error(tile, cell, tolerance_) > tolerance_;
    }
    Set grow() const
    {
        Set set;
        set.add({0, 0, 0}, 0);
        set.grow(Set::keyAt({0, 0, 0}, 0), *this, Tr::maxDepth);
        return set;
    }

private:
    float3 world(Place const& p) const { return {float(p[0]) * size_, float(p[1]) * size_, float(p[2]) * size_}; }
    static float part(int step) { return float(step) * (1.0f / float(Tr::branching)); }
    static float mixed(float a, float b, float t) { return (b - a) * t + a; }
    Combination const& field_;
    float size_, tolerance_;
};

/// Tiles that one of two sets lacks.
inline std::string difference(std::set<TileKey> const& a, std::set<TileKey> const& b)
{
    std::ostringstream out;
    int shown = 0;
    for (TileKey const& key : a)
        if (!b.count(key) && ++shown < 8) out << "only the first has " << key << "\n";
    for (TileKey const& key : b)
        if (!a.count(key) && ++shown < 16) out << "only the second has " << key << "\n";
    return out.str();
}

}  // namespace tilegrid::test
