#pragma once
#include "TilegridOps/host/math.h"
#include "io/mesh.h"

#include <cstdint>
#include <memory>

namespace bench {

/// Two volumes of the peer, and how it joins them. Level sets with a band of half width 3, and a property of three numbers on
/// the same voxels.
class PeerPair {
public:
    static PeerPair meshes(tilegrid::io::TriangleMesh const& first, float firstVoxel, tilegrid::io::TriangleMesh const& second, float secondVoxel);
    static PeerPair spheres(Ostara::Math::float3 const& first, float firstVoxel, Ostara::Math::float3 const& second, float secondVoxel, float radius);
    ~PeerPair();
    PeerPair(PeerPair&&) noexcept;

    /// Active voxels of the union.
    std::int64_t unionActive() const;
    std::int64_t firstActive() const;
    /// The union as a new grid; both on one lattice.
    std::uint64_t unionCopy() const;
    /// The second resampled to the lattice of the first, trilinearly, then the union.
    std::uint64_t unionResampled() const;
    /// The second property resampled to the lattice of the first, trilinearly, then the sum of both.
    std::uint64_t sumResampled() const;

private:
    struct Content;
    explicit PeerPair(std::unique_ptr<Content> content);
    std::unique_ptr<Content> content_;
};

}  // namespace bench
