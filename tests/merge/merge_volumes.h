#pragma once
#include "TilegridOps/nodes/merge.h"
#include "support/jobs.h"
#include "support/structures.h"
#include "support/volumes.h"

#include <cmath>
#include <cstring>

/// Volumes with known content, and the merge node with its parameters by name.
namespace tilegrid::test {

using OST::TileTree3D::VoxelOffsetType;
using OST::TileTree3D::VoxelTopology;
using Ostara::Geometry::sVoxelFogDensity;
using Ostara::Geometry::sVoxelSignedDistance;
using Ostara::Math::float3;
using Geometry::Volume::AutoSubdivisionStructure;
using Geometry::Volume::FogDensityMode;
using Geometry::Volume::LevelSetMode;
using PropertiesMode = Geometry::Volume::Properties::Mode;
using Interpolation = Geometry::Volume::InterpolationMode;

/// A place in world space.
using World = std::array<double, 3>;
using Distance = std::function<double(World const&)>;

template <class Tr, class T = float> using Plain = OST::TileTree3D::Channel<Tr, T, Tr::width, 0>;
template <class Tr, class T = float> using CompressedHalo = OST::TileTree3D::Channel<Tr, T, Tr::width + 1, 0>;

inline Distance sphere(World const& centre, double radius)
{
    return [=](World const& p) { return std::hypot(p[0] - centre[0], p[1] - centre[1], p[2] - centre[2]) - radius; };
}
inline Distance box(World const& low, World const& high)
{
    return [=](World const& p) {
        double outside = 0, inside = -1e300;
        for (int a = 0; a < 3; ++a) {
            const double d = std::max(low[a] - p[a], p[a] - high[a]);
            outside += d > 0 ? d * d : 0;
            inside = std::max(inside, d);
        }
        return inside > 0 ? std::sqrt(outside) : inside;
    };
}

/// The world place of a voxel's sample.
template <class Tr> World placeOf(TileKey const& key, int flat, float voxelSize, int offset)
{
    const double w = double(TileSet<Tr>::voxelWidth(key.depth));
    const int voxel[3] = {flat % Tr::width, flat / Tr::width % Tr::width, flat / (Tr::width * Tr::width)};
    World p;
    for (int a = 0; a < 3; ++a) p[a] = (double(key.low[a]) + w * (voxel[a] + (offset >> a & 1 ? 0.0 : 0.5))) * double(voxelSize);
    return p;
}

/// A volume whose tiles, down to `deepest`, are those within `band` voxels (of that depth) of a surface, with all ancestors.
template <class Tr>
Corvid::MutablePtr<Native> volumeAround(Distance const& surface, float voxelSize, double band = 3, int deepest = Tr::maxDepth,
                                        VoxelOffsetType offset = OST::TileTree3D::kCorner)
{
    const double reach = band * double(voxelSize) * double(TileSet<Tr>::voxelWidth(deepest));
    auto volume = OST::TileTree3D::Command::createVoxelOST<Tr>(sVoxelTileTree, sVoxelComp, voxelSize, offset);
    auto tree = volume->template extractComponent<Tree<Tr>>(sVoxelTileTree);
    auto topology = volume->template extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    growAll<Tr>(*tree, [&](auto const& tile, int3 const& cell) {
        if (tile.depth() >= deepest) return false;
        const double w = tile.voxelWidth();
        const int3 low = tile.childTIJK(cell);
        const World centre{(low.x + 0.5 * w) * voxelSize, (low.y + 0.5 * w) * voxelSize, (low.z + 0.5 * w) * voxelSize};
        return std::abs(surface(centre)) <= reach + 0.8660254037844387 * w * double(voxelSize);
    });
    topology->update(*tree);
    volume->putComponent(std::move(topology));
    volume->putComponent(std::move(tree));
    return volume;
}

/// Adds a property with `value(world place)` in every voxel of every depth.
template <class Tr, class T>
void addField(Native& volume, Corvid::String const& name, T const& outside, std::function<T(World const&)> const& value)
{
    const float voxelSize = treeOf<Tr>(volume)->voxelSize();
    const int offset = volume.component<VoxelTopology<Tr>>(sVoxelComp)->offsetType();
    addChannel<Plain<Tr, T>>(volume, name, outside,
                             [&](TileKey const& key, int flat) { return value(placeOf<Tr>(key, flat, voxelSize, offset)); });
}

/// The same volume as `volumeAround`, with true distances at every depth and a default of `band` voxels.
template <class Tr>
Corvid::MutablePtr<Native> levelSetAround(Distance const& surface, float voxelSize, double band = 3, int deepest = Tr::maxDepth,
                                          VoxelOffsetType offset = OST::TileTree3D::kCorner)
{
    auto volume = volumeAround<Tr>(surface, voxelSize, band, deepest, offset);
    const double outside = band * double(voxelSize) * double(TileSet<Tr>::voxelWidth(deepest));
    addField<Tr, float>(*volume, sVoxelSignedDistance, float(outside), [&](World const& p) { return float(surface(p)); });
    return volume;
}

/// The same with the level set in compressed-halo form only. The extra layers hold NaN: nothing may read them.
template <class Tr> void useCompressedHalo(Native& volume, Corvid::String const& name)
{
    const auto plain = volume.component<Plain<Tr>>(name);
    const auto tree = treeOf<Tr>(volume);
    const float outside = plain->defaultValue();
    auto halo = Corvid::makeMutable<CompressedHalo<Tr>>(name, &outside, OST::TileTree3D::kInitializeLinear, false, true, plain->minDepth(),
                                                        plain->depth());
    halo->updateTilesAdded(*tree);
    for (int d = halo->minDepth(); d <= halo->depth(); ++d)
        for (OST::int64 n = 0; n < tree->tileCount(d); ++n) {
            const auto to = halo->tileData(n, d);
            to.set(std::numeric_limits<float>::quiet_NaN());
            for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                const int3 ijk = OST::TileTree3D::cubeIndex(Tr::width, flat);
                to(ijk) = plain->tileData(n, d)(ijk);
            }
        }
    volume.putComponent(std::move(halo));
}

/// The node's parameters.
struct MergeCase {
    bool enable = true, invertOrder = false;
    LevelSetMode levelSet = LevelSetMode::kUnion;
    FogDensityMode fog = FogDensityMode::kAdd;
    float alpha = 0.5f;
    PropertiesMode properties = PropertiesMode::kAutomatic;
    Interpolation interpolation = Interpolation::kLinear;
    bool adaptive = false;
    float scale = 1.0f, tolerance = 0.01f;
    AutoSubdivisionStructure structure = AutoSubdivisionStructure::kAutomatic;
};

inline HostPtr merge(std::vector<HostPtr> const& volumes, MergeCase const& c = {}, Corvid::RuntimeServices const& services = {})
{
    HostPtr output;
    Geometry::Volume::merge_volumes_internal(Corvid::Array<HostPtr>(volumes.begin(), volumes.end()), c.enable, c.invertOrder, c.levelSet, c.fog,
                                             c.alpha, c.properties, c.interpolation, c.adaptive, c.scale, c.tolerance, c.structure, output,
                                             services);
    return output;
}

template <class Tr> Corvid::Ptr<Tree<Tr>> treeIn(HostPtr const& volume) { return treeOf<Tr>(*volume->native()); }
template <class Tr, class T = float>
Corvid::Ptr<Plain<Tr, T>> channelIn(HostPtr const& volume, Corvid::String const& name = sVoxelSignedDistance)
{
    return volume->native()->component<Plain<Tr, T>>(name);
}

/// The values of a property by tile: every voxel of every depth, whatever order the tiles lie in.
template <class Tr, class T = float>
std::map<TileKey, std::vector<T>> valuesByTile(HostPtr const& volume, Corvid::String const& name = sVoxelSignedDistance)
{
    std::map<TileKey, std::vector<T>> values;
    const auto tree = treeIn<Tr>(volume);
    const auto channel = channelIn<Tr, T>(volume, name);
    if (!tree || !channel) return values;
    for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
        const auto data = channel->tileData(tree->tile(n).treeIndex());
        values[keyOf(tree->tile(n))] = std::vector<T>(data.begin(), data.end());
    }
    return values;
}

/// The first place where two sets of values differ in a bit, or empty.
template <class T>
std::string bitDifference(std::map<TileKey, std::vector<T>> const& a, std::map<TileKey, std::vector<T>> const& b)
{
    std::ostringstream out;
    if (a.size() != b.size()) out << a.size() << " and " << b.size() << " tiles";
    for (auto const& [key, values] : a) {
        if (!out.str().empty()) break;
        const auto other = b.find(key);
        if (other == b.end())
            out << "only one has " << key;
        else if (std::memcmp(values.data(), other->second.data(), values.size() * sizeof(T)) != 0)
            out << "other values in " << key;
    }
    return out.str();
}

/// The tiles of a tree as a set.
template <class Tr> std::set<TileKey> tilesOf(HostPtr const& volume)
{
    std::set<TileKey> keys;
    const auto tree = treeIn<Tr>(volume);
    for (OST::int64 n = 0; tree && n < tree->tileCount(-1); ++n) keys.insert(keyOf(tree->tile(n)));
    return keys;
}

}  // namespace tilegrid::test
