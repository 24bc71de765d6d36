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

/// Middle of the finest samples that a tile and all its descendants may have: their box is one finest voxel short of
/// the tile.
double3 middleOf(int3 const& corner, int tileWidth)
{
    const double half = 0.5 * (tileWidth - 1);
    return {corner.x + half, corner.y + half, corner.z + half};
}

/// Whether a finest tile has a voxel within the band. `middle` is what is known about the middle of its samples.
template <class Tr>
bool hasVoxelInBand(TriangleTree const& tree, int3 const& corner, TriangleTree::Nearest middle, double band)
{
    const auto within = [&](int i, int j, int k) {
        const double3 place(corner.x + i, corner.y + j, corner.z + k);
        middle = tree.nearest(place, middle.triangle);
        return middle.squaredDistance <= band * band;
    };
    // The voxel next to the point of the surface that is nearest to the middle decides most tiles.
    const double3 near = tree.nearestPoint(middleOf(corner, Tr::width), middle.triangle);
    const auto clamped = [](double v) { return static_cast<int>(std::clamp(std::round(v), 0.0, Tr::width - 1.0)); };
    if (within(clamped(near.x - corner.x), clamped(near.y - corner.y), clamped(near.z - corner.z))) return true;
    for (int k = 0; k < Tr::width; ++k)
        for (int j = 0; j < Tr::width; ++j)
            for (int i = 0; i < Tr::width; ++i)
                if (within(i, j, k)) return true;
    return false;
}

/// Appends the children of `parent` that may, or at the finest depth do, hold a voxel within the band.
template <class Tr>
void appendChildren(TriangleTree const& tree, Candidate const& parent, int childDepth, double band,
                    std::vector<Candidate>& out)
{
    const int childWidth = Tr::tileVoxelWidth(childDepth);
    const double reach = band + 0.5 * std::numbers::sqrt3 * (childWidth - 1);
    std::int32_t guess = parent.nearest;
    for (int cell = 0; cell < Tr::childCount; ++cell) {
        const int3 corner = parent.corner + childWidth * OST::TileTree3D::cubeIndex(Tr::branching, cell);
        const auto nearest = tree.nearest(middleOf(corner, childWidth), guess);
        guess = nearest.triangle;
        // The slack keeps a tile whose voxel lies just on the rim of the band whatever the rounding here.
        if (nearest.squaredDistance > reach * reach * (1.0 + 1e-12)) continue;
        if (childDepth < Tr::maxDepth || hasVoxelInBand<Tr>(tree, corner, nearest, band))
            out.push_back({corner, nearest.triangle});
    }
}

}  // namespace

template <class Tr> std::vector<int3> tilesNearSurface(TriangleTree const& tree, double band)
{
    constexpr OST::int64 kPart = 64;
    std::vector<Candidate> tiles{{int3(Tr::rangeMin), 0}};
    for (int depth = 1; depth <= Tr::maxDepth; ++depth) {
        const auto count = static_cast<OST::int64>(tiles.size());
        std::vector<std::vector<Candidate>> parts((count + kPart - 1) / kPart);
        parallel::loop(0, static_cast<OST::int64>(parts.size()), 1, [&](OST::int64 begin, OST::int64 end) {
            for (OST::int64 part = begin; part < end; ++part)
                for (OST::int64 n = part * kPart; n < std::min(count, (part + 1) * kPart); ++n)
                    appendChildren<Tr>(tree, tiles[n], depth, band, parts[part]);
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

template std::vector<int3> tilesNearSurface<OST::TileTree3D::BinaryTraits>(TriangleTree const&, double);
template std::vector<int3> tilesNearSurface<OST::TileTree3D::QuinaryTraits>(TriangleTree const&, double);
template double estimatedLevelSetBytes<OST::TileTree3D::BinaryTraits>(double, double, double);
template double estimatedLevelSetBytes<OST::TileTree3D::QuinaryTraits>(double, double, double);

}  // namespace tilegrid::io
