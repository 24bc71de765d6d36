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
    /// The triangle nearest to the tile's middle: where the search in its children starts.
    std::int32_t nearest;
};

/// What is looked for: tiles of one depth with a voxel within the band, and maybe in a box.
struct Search {
    TriangleTree const& tree;
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

/// Whether a tile of the depth has a voxel within the band. `middle` is what is known about the middle of its samples.
template <class Tr> bool hasVoxelInBand(Search const& search, int3 const& corner, TriangleTree::Nearest middle)
{
    const int spacing = search.spacing;
    const auto within = [&](int i, int j, int k) {
        const double3 place(double(corner.x) + i * spacing, double(corner.y) + j * spacing, double(corner.z) + k * spacing);
        middle = search.tree.nearest(place, middle.triangle);
        return middle.squaredDistance <= search.band * search.band;
    };
    // The voxel next to the point of the surface that is nearest to the middle decides most tiles.
    const double3 near = search.tree.nearestPoint(middleOf(corner, Tr::width * spacing, spacing), middle.triangle);
    const auto clamped = [spacing](double v) {
        return static_cast<int>(std::clamp(std::round(v / spacing), 0.0, Tr::width - 1.0));
    };
    if (within(clamped(near.x - corner.x), clamped(near.y - corner.y), clamped(near.z - corner.z))) return true;
    for (int k = 0; k < Tr::width; ++k)
        for (int j = 0; j < Tr::width; ++j)
            for (int i = 0; i < Tr::width; ++i)
                if (within(i, j, k)) return true;
    return false;
}

/// Appends the children of `parent` that may, or at the depth of the search do, hold a voxel within the band.
template <class Tr>
void appendChildren(Search const& search, Candidate const& parent, int childDepth, std::vector<Candidate>& out)
{
    const int childWidth = Tr::tileVoxelWidth(childDepth);
    const double reach = search.band + 0.5 * std::numbers::sqrt3 * (childWidth - search.spacing);
    std::int32_t guess = parent.nearest;
    for (int cell = 0; cell < Tr::childCount; ++cell) {
        const int3 corner = parent.corner + childWidth * OST::TileTree3D::cubeIndex(Tr::branching, cell);
        if (!search.meetsBox(corner, childWidth)) continue;
        const auto nearest = search.tree.nearest(middleOf(corner, childWidth, search.spacing), guess);
        guess = nearest.triangle;
        // The slack keeps a tile whose voxel lies just on the rim of the band whatever the rounding here.
        if (nearest.squaredDistance > reach * reach * (1.0 + 1e-12)) continue;
        if (childDepth < search.depth || hasVoxelInBand<Tr>(search, corner, nearest))
            out.push_back({corner, nearest.triangle});
    }
}

}  // namespace

template <class Tr>
std::vector<int3> tilesNearSurface(TriangleTree const& tree, double band, int depth, TileSpaceBox const* inside)
{
    constexpr OST::int64 kPart = 64;
    const Search search{tree, band, depth, inside, Tr::voxelDataWidth(depth)};
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

template std::vector<int3> tilesNearSurface<OST::TileTree3D::BinaryTraits>(TriangleTree const&, double, int, TileSpaceBox const*);
template std::vector<int3> tilesNearSurface<OST::TileTree3D::QuinaryTraits>(TriangleTree const&, double, int, TileSpaceBox const*);
template double estimatedLevelSetBytes<OST::TileTree3D::BinaryTraits>(double, double, double);
template double estimatedLevelSetBytes<OST::TileTree3D::QuinaryTraits>(double, double, double);

}  // namespace tilegrid::io
