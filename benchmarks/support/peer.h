#pragma once
#include "TilegridOps/host/math.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// The peer: OpenVDB, in its best form for each job, behind a plain interface so that one file compiles it.
namespace bench {

class PeerGrid {
public:
    /// A level set of a sphere with that radius in voxels around the origin, band of half width 3.
    static PeerGrid sphere(float radius);
    /// A level set of the triangles with that voxel size.
    static PeerGrid mesh(std::vector<Ostara::Math::float3> const& vertices, std::vector<Ostara::Math::int3> const& triangles, float voxelSize);
    ~PeerGrid();
    PeerGrid(PeerGrid&&) noexcept;

    std::vector<Ostara::Math::int3> activeVoxels() const;
    std::int64_t activeCount() const;
    std::uint64_t memoryBytes() const;

    /// Finds the leaf of each place: by the tree itself, or by an accessor per thread.
    std::uint64_t locateByTree(std::vector<Ostara::Math::int3> const& places) const;
    std::uint64_t locateByAccessor(std::vector<Ostara::Math::int3> const& places) const;
    /// Activates and sets the voxels one by one through an accessor.
    void append(std::vector<Ostara::Math::int3> const& places);
    /// b = a * 0.99 + 0.01 over all values of all leaves into a second tree of the same topology.
    std::uint64_t leafPass();
    std::int64_t leafValues() const;
    /// The Laplacian of every active voxel, as a new grid.
    std::uint64_t laplacian() const;
    /// The gradient and the mean curvature of every active voxel, as new grids.
    std::uint64_t gradient() const;
    std::uint64_t meanCurvature() const;
    /// The grid turned by an angle (radians) around the z axis, into a new one: trilinear, or triquadratic.
    std::uint64_t rotated(double angle, bool quadratic) const;
    /// The mean over 3x3x3 voxels of every active voxel, one pass.
    std::uint64_t mean() const;

    /// The zero surface as points and quads, counted as two triangles each; full resolution.
    std::int64_t surfaceTriangles() const;

    float voxelSize() const;
    std::vector<float> values(std::vector<Ostara::Math::int3> const& places) const;
    /// For each place, whether the voxels of the cube from it to one further on each axis are all active.
    std::vector<char> holdCubes(std::vector<Ostara::Math::int3> const& places) const;
    /// Trilinear at positions in voxels: by the box sampler on an accessor per thread, or by a box stencil. \return the sum
    double sampleByAccessor(std::vector<Ostara::Math::float3> const& positions) const;
    double sampleByStencil(std::vector<Ostara::Math::float3> const& positions) const;
    /// Triquadratic, on an accessor per thread. \return the sum
    double sampleQuadratic(std::vector<Ostara::Math::float3> const& positions) const;
    /// The same with the gradient in world space, whose components are added to the sum.
    double gradientByStencil(std::vector<Ostara::Math::float3> const& positions) const;

private:
    struct Content;
    explicit PeerGrid(std::unique_ptr<Content> content);
    std::unique_ptr<Content> content_;
};

/// Points that the peer holds in its own form, with a value each.
class PeerPoints {
public:
    PeerPoints(std::vector<Ostara::Math::float3> const& positions, std::vector<float> const& values, float voxelSize);
    ~PeerPoints();

    /// Spreads the values over the eight voxels around each point, as weighted sums into a grid of the voxels next to points.
    std::uint64_t rasterizeTrilinear() const;
    std::int64_t voxelsOfLastResult() const;

private:
    struct Content;
    std::unique_ptr<Content> content_;
};

/// Builds the sphere of `PeerGrid::sphere` and throws it away.
std::uint64_t peerBuildSphere(float radius);

}  // namespace bench
