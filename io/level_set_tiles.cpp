#include "io/level_set_tiles.h"

#include "TilegridOps/substrate/parallel.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace tilegrid::io {

using Ostara::Math::double3;
using Ostara::Math::int3;

namespace {

struct Candidate {
    int3 corner;
    /// What is known about the middle of its samples: where the search in its children starts.
    std::int32_t guess;
};

/// What is looked for: tiles of one depth with a voxel within the band, and maybe in a box.
struct Search {
    DistanceSource const& surface;
    double band;
    int depth;
    TileSpaceBox const* inside;
    /// Width of a voxel of the depth.
    int spacing;

    bool meetsBox(int3 const& corner, int tileWidth) const
    {
        for (int axis = 0; inside && axis < 3; ++axis)
            if (double(corner[axis]) + tileWidth <= inside->low[axis] || corner[axis] > inside->high[axis]) return false;
        return true;
    }
};

/// Middle of the samples of the depth that a tile and all its descendants may have: their box is one voxel of it short of
/// the tile.
double3 middleOf(int3 const& corner, int tileWidth, int spacing)
{
    const double half = 0.5 * (tileWidth - spacing);
    return {corner.x + half, corner.y + half, corner.z + half};
}

/// Appends the children of `parent` that may, or at the depth of the search do, hold a voxel within the band.
template <class Tr>
void appendChildren(Search const& search, Candidate const& parent, int childDepth, std::vector<Candidate>& out)
{
    const int childWidth = Tr::tileVoxelWidth(childDepth);
    const double reach = search.band + 0.5 * std::numbers::sqrt3 * (childWidth - search.spacing);
    std::int32_t guess = parent.guess;
    for (int cell = 0; cell < Tr::childCount; ++cell) {
        const int3 corner = parent.corner + childWidth * OST::TileTree3D::cubeIndex(Tr::branching, cell);
        if (!search.meetsBox(corner, childWidth)) continue;
        const auto nearest = search.surface.nearest(middleOf(corner, childWidth, search.spacing), guess);
        guess = nearest.guess;
        // The slack keeps a tile whose voxel lies just on the rim of the band whatever the rounding here.
        if (nearest.squaredDistance > reach * reach * (1.0 + 1e-12)) continue;
        if (childDepth < search.depth || search.surface.anyWithin(double3(corner), search.spacing, Tr::width, search.band, guess))
            out.push_back({corner, guess});
    }
}

}  // namespace

template <class Tr>
std::vector<int3> tilesNearSurface(DistanceSource const& surface, double band, int depth, TileSpaceBox const* inside)
{
    constexpr OST::int64 kPart = 64;
    const Search search{surface, band, depth, inside, Tr::voxelDataWidth(depth)};
    std::vector<Candidate> tiles{{int3(Tr::rangeMin), 0}};
    for (int childDepth = 1; childDepth <= depth; ++childDepth) {
        const auto count = static_cast<OST::int64>(tiles.size());
        std::vector<std::vector<Candidate>> parts((count + kPart - 1) / kPart);
        parallel::loop(0, static_cast<OST::int64>(parts.size()), 1, [&](OST::int64 begin, OST::int64 end) {
            for (OST::int64 part = begin; part < end; ++part)
                for (OST::int64 n = part * kPart; n < std::min(count, (part + 1) * kPart); ++n)
                    appendChildren<Tr>(search, tiles[n], childDepth, parts[part]);
        });
        tiles.clear();
        for (auto const& part : parts) tiles.insert(tiles.end(), part.begin(), part.end());
    }
    std::vector<int3> corners;
    corners.reserve(tiles.size());
    for (Candidate const& tile : tiles) corners.push_back(tile.corner);
    return corners;
}

template <class Tr> double estimatedLevelSetBytes(double area, double size, double band)
{
    // A layer of tiles around a surface is as thick as the band on both sides and the mean width of the box of a tile's
    // samples, 3/2 of its side. Where the body is small against a voxel, a depth has no more than the 8 tiles that meet
    // at a corner.
    constexpr double kTileBytes = 48.0, kFewest = 8.0;
    const double tableBytes = sizeof(OST::int64) * Tr::childCount;
    double bytes = 0.0;
    for (int depth = Tr::maxDepth; depth >= 0; --depth) {
        const double voxel = Tr::voxelDataWidth(depth);
        const double layer = 2.0 * band / voxel + 1.5 * (Tr::width - 1);
        const double inLayer = area / (voxel * voxel) * layer / Tr::voxelCount;
        const double across = (size + 2.0 * band) / (Tr::width * voxel) + 1.0;
        const double tiles = std::min(across * across * across, std::max(inLayer, kFewest));
        bytes += tiles * (Tr::voxelCount * sizeof(float) + kTileBytes + (depth < Tr::maxDepth ? tableBytes : 0.0));
    }
    return bytes;
}

template std::vector<int3> tilesNearSurface<OST::TileTree3D::BinaryTraits>(DistanceSource const&, double, int, TileSpaceBox const*);
template std::vector<int3> tilesNearSurface<OST::TileTree3D::QuinaryTraits>(DistanceSource const&, double, int, TileSpaceBox const*);
template double estimatedLevelSetBytes<OST::TileTree3D::BinaryTraits>(double, double, double);
template double estimatedLevelSetBytes<OST::TileTree3D::QuinaryTraits>(double, double, double);

}  // namespace tilegrid::io
