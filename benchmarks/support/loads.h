#pragma once
#include "TilegridOps/substrate/commands.h"
#include "TilegridOps/substrate/traversal.h"
#include "benchmarks/support/peer.h"

#include <memory>
#include <string>

/// The volumes that benchmarks run on, ours and the peer's, with the same content.
namespace bench {

using namespace OST::TileTree3D;
using Ostara::Math::float3;
using Ostara::Math::int3;

/// Half width of all bands, in finest voxels.
inline constexpr float kBand = 3.0f;

/// Exact distance to a sphere around the origin, in finest voxels.
struct SphereField {
    float radius;
    float operator()(float x, float y, float z) const { return std::sqrt(x * x + y * y + z * z) - radius; }
};

/// Grows the tiles of a sphere's band: a finest tile is wanted if one of its voxels lies within the band, a coarser one if
/// it may hold such a tile.
template <class Tr> void growBand(Container<Tr>& tree, SphereField sphere)
{
    using Tile = typename Container<Tr>::Tile;
    const auto wants = [sphere](Tile const& tile, int3 const& cell) {
        const int3 corner = tile.childTIJK(cell);
        const float width = float(tile.voxelWidth());
        const float half = 0.5f * width;
        const float centre = std::fabs(sphere(corner.x + half, corner.y + half, corner.z + half));
        if (centre > kBand + 0.8661f * width) return false;
        if (tile.depth() < Tr::maxDepth - 1) return true;
        for (int k = 0; k < Tr::width; ++k)
            for (int j = 0; j < Tr::width; ++j)
                for (int i = 0; i < Tr::width; ++i)
                    if (std::fabs(sphere(float(corner.x + i), float(corner.y + j), float(corner.z + k))) < kBand) return true;
        return false;
    };
    tree.template refine<decltype(wants), 0>(wants, TreeIndex(), 0, Tr::maxDepth, nullptr);
}

template <class Tr> using FloatChannel = Channel<Tr, float, Tr::width, 0>;

/// A distance channel over some depths, filled with the exact field.
template <class Tr> Corvid::MutablePtr<FloatChannel<Tr>> sphereChannel(Container<Tr> const& tree, SphereField sphere, int minDepth);

/// The tile set of a level set in both forms: "sphere512", "sphere1024" or "bunny".
struct Load {
    std::string name;
    std::shared_ptr<PeerGrid> peer;
    /// The peer's active voxels, in its order: the band.
    std::vector<int3> band;
};
std::vector<Load> loads(bool withBunny);

/// A tree of the finest tiles that hold a voxel of the band.
template <class Tr> std::shared_ptr<Container<Tr>> treeOf(Load const& load);

/// A fixed shuffle.
std::vector<int3> shuffled(std::vector<int3> places, unsigned seed);
/// Places in the box of the band, uniform.
std::vector<int3> randomInBox(std::vector<int3> const& band, std::size_t count, unsigned seed);

extern template Corvid::MutablePtr<FloatChannel<BinaryTraits>> sphereChannel(Container<BinaryTraits> const&, SphereField, int);
extern template Corvid::MutablePtr<FloatChannel<QuinaryTraits>> sphereChannel(Container<QuinaryTraits> const&, SphereField, int);
extern template std::shared_ptr<Container<BinaryTraits>> treeOf(Load const&);
extern template std::shared_ptr<Container<QuinaryTraits>> treeOf(Load const&);

}  // namespace bench
