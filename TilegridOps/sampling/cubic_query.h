#pragma once
#include "TilegridOps/sampling/cubic_diagnostics.h"
#include "TilegridOps/sampling/cubic_kernels.h"
#include "TilegridOps/sampling/voxel_sampler_cubic.h"

namespace OST::TileTree3D {

/// One query of the cubic sampler under `JumpPolicy::kHierarchical`. It walks along an axis from sample to sample, at the spacing
/// that it finds there; along two axes it does so across lines, and along three across planes. A sample that lies between the
/// voxels of its tile is a query in turn, of fewer axes or of a coarser tile, which bounds the recursion.
///
/// Positions are tile-space integers. Kernels see them as floats relative to the query's voxel, so that they keep their
/// differences wherever in tile space that is.
template <class Tr, class T> class CubicQuery {
public:
    using Sampler = VoxelSamplerCubic<Tr, T, float, float3, 0, 0>;
    using Tile = typename Container<Tr>::Tile;

    /// The arguments are those of `getValue`, checked; `depthLimit` not deeper than the channel.
    CubicQuery(Sampler const& sampler, TreeIndex const& ti, int3 const& lijk, float3 const& frac, int depthLimit, bool flag);
    T value();

private:
    static constexpr int W = Tr::width;
    /// A sample along an axis: its value, where it lies relative to the query's voxel and in tile space, and how far from the next.
    struct StencilValue {
        T value{};
        float position = 0;
        std::int32_t tsPos, tsInc;
    };

    T onVoxel() const;
    T interpolated(int fractions, int axes);
    Tile const& getTile(int3 const& in_tijk) const;
    T readVoxel(TreeIndex const& tile, int3 const& voxel) const;

    bool getStencilValue(int3 const& in_tijk, int axis, StencilValue& io) const;
    bool getDefaultValue(int axis, StencilValue& io) const;
    bool getCoarserValue(Tile const& tile, int3 const& in_tijk, int axis, StencilValue& io) const;
    bool getValueAtThisLevel(Tile const& tile, int3 const& lijk, int3 const& in_tijk, int axis, StencilValue& io) const;
    void checkCase(int number, StencilValue& io) const;

    template <class SampleAt> bool walk(std::int32_t start, float x, SampleAt const& sampleAt, T& out) const;
    T interpolateValues1D(std::array<T, 4> const& values, std::array<float, 4> const& positions, float x, bool atResolutionJump) const;
    // Each tells whether the stencil left the uniform level.
    bool getValue1D(int3 base, int axis, T& out) const;
    bool getValue2D(int3 base, int axisI, int axisJ, T& out) const;
    bool getValue3D(int3 base, T& out) const;

    /// Takes the finest voxel width around a place on a line, or in a plane, and the multiple of it at or below the place.
    void getIncrementAndPosition2D(int3 const& in_tijk2, int axisI, int axisJ, std::int32_t& io_pos, std::int32_t& io_inc) const;
    void getIncrementAndPosition3D(int3 const& in_tijk3, std::int32_t& io_pos, std::int32_t& io_inc) const;
    std::int32_t widthAt(int3 const& place) const;
    void alignDown(std::int32_t place, std::int32_t width, std::int32_t& io_pos, std::int32_t& io_inc) const;

    float sampleX(int axis) const { return frac_[axis] * static_cast<float>(vdw_); }
    float relative(int axis, std::int32_t place) const { return static_cast<float>(int64(place) - tijk_[axis]); }
    CubicQueryState state() const;

    Sampler const& s_;
    ConstTileAccessor<Tr> const& accessor_;
    TreeIndex ti_;
    Tile const& tile_;
    int3 lijk_;
    float3 frac_;
    int depthLimit_;
    bool flag_;
    std::int32_t vdw_, tvw_;
    int3 tijk_;
    TileNeighborhood<Tr> near_;
};

}  // namespace OST::TileTree3D
