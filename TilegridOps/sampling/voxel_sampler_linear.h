#pragma once
#include "TilegridOps/sampling/halo_cache.h"
#include "TilegridOps/sampling/voxel_sampler.h"
#include "TilegridOps/substrate/element_values.h"

namespace OST::TileTree3D {

namespace detail {

/// The derivatives of a value along x, y, z.
template <class T> struct GradientOf {
    using Type = std::array<T, 3>;
};
template <> struct GradientOf<float> {
    using Type = float3;
};
template <> struct GradientOf<double> {
    using Type = double3;
};

/// The corners of a cube in an array with `Row` elements per axis.
template <int Row, class T> struct CubeInArray {
    T const* low;
    T const& operator()(int n) const { return low[flatIndex(Row, n & 1, n >> 1 & 1, n >> 2)]; }
};

/// The values at the corners of a cube, mixed along x on its four edges, then y, then z. Corner n is the high one along x, y,
/// z if bit 0, 1, 2 of n is set.
template <class T> struct Trilinear {
    T alongX[4], alongY[2];

    template <class Corner> Trilinear(Corner const& corner, float3 const& f)
    {
        using tilegrid::mixed;
        for (int edge = 0; edge < 4; ++edge) alongX[edge] = mixed<T>(corner(2 * edge), corner(2 * edge + 1), f.x);
        for (int face = 0; face < 2; ++face) alongY[face] = mixed<T>(alongX[2 * face], alongX[2 * face + 1], f.y);
    }
    T value(float3 const& f) const { return tilegrid::mixed<T>(alongY[0], alongY[1], f.z); }
    /// \param perVoxel  what one voxel measures, inverted
    template <class Corner> typename GradientOf<T>::Type gradient(Corner const& corner, float3 const& f, float perVoxel) const
    {
        using tilegrid::mixed;
        const auto step = [&](int edge) -> T { return corner(2 * edge + 1) - corner(2 * edge); };
        const T alongEdges = mixed<T>(mixed<T>(step(0), step(1), f.y), mixed<T>(step(2), step(3), f.y), f.z);
        const T acrossEdges = mixed<T>(T(alongX[1] - alongX[0]), T(alongX[3] - alongX[2]), f.z);
        return {perVoxel * alongEdges, perVoxel * acrossEdges, perVoxel * (alongY[1] - alongY[0])};
    }
};

/// The same numbers with the four edges, then the two faces, side by side.
template <> struct Trilinear<float> {
    Lanes step, alongX, alongY;

    template <class Corner> Trilinear(Corner const& corner, float3 const& f) : Trilinear(ends(corner, 0), ends(corner, 1), f) {}
    float value(float3 const& f) const { return tilegrid::mixed(alongY[0], alongY[1], f.z); }
    template <class Corner> float3 gradient(Corner const&, float3 const& f, float perVoxel) const
    {
        using tilegrid::mixed;
        const float alongEdges = mixed(mixed(step[0], step[1], f.y), mixed(step[2], step[3], f.y), f.z);
        const float acrossEdges = mixed(alongX[1] - alongX[0], alongX[3] - alongX[2], f.z);
        return {perVoxel * alongEdges, perVoxel * acrossEdges, perVoxel * (alongY[1] - alongY[0])};
    }

private:
    Trilinear(Lanes low, Lanes high, float3 const& f) : step(high - low), alongX(step * f.x + low)
    {
        const Lanes even = __builtin_shufflevector(alongX, alongX, 0, 2, 0, 2), odd = __builtin_shufflevector(alongX, alongX, 1, 3, 1, 3);
        alongY = (odd - even) * f.y + even;
    }
    template <class Corner> static Lanes ends(Corner const& corner, int end)
    {
        return Lanes{corner(end), corner(2 + end), corner(4 + end), corner(6 + end)};
    }
    /// Both ends of an edge lie side by side, and travel as one number.
    template <int Row> static Lanes ends(CubeInArray<Row, float> const& cube, int end)
    {
        using Pairs = double __attribute__((vector_size(16)));
        double edge[4];
        for (int n = 0; n < 4; ++n) std::memcpy(&edge[n], &cube(2 * n), sizeof(double));
        const Lanes front = (Lanes)Pairs{edge[0], edge[1]}, back = (Lanes)Pairs{edge[2], edge[3]};
        return end ? __builtin_shufflevector(front, back, 1, 3, 5, 7) : __builtin_shufflevector(front, back, 0, 2, 4, 6);
    }
};

}  // namespace detail

/// Trilinear interpolation between the samples of a channel. Linear functions are reproduced, across jumps of depth too; corner
/// samples give a continuous function if the channel's values agree between depths.
///
/// A position is read in the finest tile that holds it and is not deeper than asked for, nor deeper than the channel. Where the
/// tile's neighbours are coarser, the missing samples are those of `computeHalo` (corner samples) or `fillOneLayerHalo` (all
/// other offsets). The result does not depend on earlier queries.
///
/// T: element type. N: ways per depth of the cache of tiles with their halos, for readers that go back and forth between a
/// few tiles. S, Pos: float, float3. b2, b3: the layout of the channel that the second constructor takes: the compressed
/// halo, or one halo layer on every side. b0, b1: 0.
///
/// Queries report no error: a position without a tile, in a tile above the channel's lowest depth, or read without a channel
/// gives the channel's default (zero without a channel) and a gradient of zero.
template <class Tr, class T, int N, class S, class Pos, int b0, int b1, int b2, int b3>
class TILEGRID_API VoxelSamplerLinear : public VoxelSampler<Tr, S, Pos> {
    static_assert(b0 == 0 && b1 == 0 && b2 + b3 == 1 && N >= 1);
    using Base = VoxelSampler<Tr, S, Pos>;
    using FoundTile = typename Base::FoundTile;
    static constexpr int W = Tr::width;

public:
    using SourceChannel = Channel<Tr, T, W, 0>;
    using HaloChannel = std::conditional_t<b3 == 1, Channel<Tr, T, W, 1>, Channel<Tr, T, W + 1, 0>>;
    using Gradient = typename detail::GradientOf<T>::Type;

    /// Has no channel; there to be assigned to.
    VoxelSamplerLinear() = default;
    /// Reads the channel itself. Halos are made on demand, where a neighbour of the same depth is missing.
    VoxelSamplerLinear(Container<Tr> const& container, VoxelTopology<Tr> const& topology, SourceChannel const* sourceChannel)
        : Base(container, topology), sourceChannel_(sourceChannel)
    {
        if (sourceChannel) take(*sourceChannel);
    }
    /// Reads a channel whose halos were made before (`computeHalo` for the compressed form): quicker, and without a cache. The
    /// compressed form is for corner samples; with others, positions below a tile's first sample take the first sample.
    VoxelSamplerLinear(Container<Tr> const& container, VoxelTopology<Tr> const& topology, HaloChannel const* haloChannel)
        : Base(container, topology), haloChannel_(haloChannel)
    {
        if (haloChannel) take(*haloChannel);
    }
    /// A copy reads the same and starts with empty caches.
    VoxelSamplerLinear(VoxelSamplerLinear const& other) = default;
    VoxelSamplerLinear& operator=(VoxelSamplerLinear const& other) = default;
    ~VoxelSamplerLinear() override = default;

    void interpolationModeName(Corvid::String& out) const override { out = interpolationName(kLinear); }

    /// \param depth            deepest depth wanted
    /// \param coordinateSpace  as in `locateVoxel`
    T sampleLinear(Pos const& position, int depth = Tr::maxDepth, int coordinateSpace = kWorldSpace) const
    {
        LocatedVoxel at;
        auto const& tile = this->locate(position, coordinateSpace, std::min(maxDepth_, depth), at);
        return read(at, tile, [](auto const& corner, float3 const& f) -> T {
            return detail::Trilinear<T>(corner, f).value(f);
        });
    }
    /// The same, and the exact derivative of the trilinear form by world position. It jumps where cells meet.
    T sampleLinearWithGradient(Pos const& position, int depth, int coordinateSpace, Gradient& gradient) const
    {
        LocatedVoxel at;
        gradient = Gradient();
        auto const& tile = this->locate(position, coordinateSpace, std::min(maxDepth_, depth), at);
        const float perVoxel = tile.inverseWidth * this->invVoxelSize_;
        return read(at, tile, [perVoxel, &gradient](auto const& corner, float3 const& f) -> T {
            const detail::Trilinear<T> mix(corner, f);
            gradient = mix.gradient(corner, f, perVoxel);
            return mix.value(f);
        });
    }
    /// `sampleLinear` at `count` positions, into `out`. Many positions at once hide the time that memory takes: meant for a halo
    /// channel and positions without order.
    void sampleLinearBatch(Pos const* positions, std::size_t count, int depth, int coordinateSpace, T* out) const;

    /// Whether a tile with its halo lies in the cache.
    bool holdsHalo(TreeIndex const& tile) const { return cache_.holds(tile); }
    T const& defaultValue() const { return defaultValue_; }

private:
    /// Places in the caches start anew in a copy.
    struct Counter {
        uint64 value = 0;
        Counter() = default;
        Counter(Counter const&) {}
        Counter& operator=(Counter const&)
        {
            value = 0;
            return *this;
        }
    };
    template <class C> void take(C const& channel)
    {
        defaultValue_ = channel.defaultValue();
        minDepth_ = channel.minDepth();
        maxDepth_ = channel.depth();
    }
    /// A stencil in one array with `Row` elements per axis.
    template <int Row, class Mix> static T mixRows(T const* low, float3 const& f, Mix const& mix)
    {
        return mix(detail::CubeInArray<Row, T>{low}, f);
    }
    template <class Mix> static T mixOneLayer(T const* array, LocatedVoxel const& at, Mix const& mix)
    {
        return mixRows<W + 2>(array + flatIndex(W + 2, at.lijk.x + 1, at.lijk.y + 1, at.lijk.z + 1), at.frac, mix);
    }
    template <class Mix> static T mixCompressed(T const* array, LocatedVoxel const& at, Mix const& mix)
    {
        return mixRows<W + 1>(array + flatIndex(W + 1, at.lijk.x, at.lijk.y, at.lijk.z), at.frac, mix);
    }
    /// Whether the tile's own voxels hold the whole stencil.
    bool liesInside(int3 const& voxel) const
    {
        // The bound is one voxel stricter for cell-centred samples. The two reads give the same bits.
        const int first = this->offsetType_ == kCorner ? 0 : 1;
        const auto end = std::uint32_t(W - 1 - first);
        return std::uint32_t(voxel.x - first) < end && std::uint32_t(voxel.y - first) < end && std::uint32_t(voxel.z - first) < end;
    }
    /// \param tile  what `locate` gave with `at`, or what took its place meanwhile
    template <class Mix> T read(LocatedVoxel const& at, FoundTile const& tile, Mix const& mix) const
    {
        if (at.treeIndex.depth < minDepth_) [[unlikely]] return defaultValue_;
        if (haloChannel_) return readHaloChannel(at, mix);
        T const* own = sourceChannel_->tileData(at.treeIndex).data();
        if (!own) [[unlikely]] return defaultValue_;
        ++queryCounter_.value;
        if (liesInside(at.lijk)) return mixRows<W>(own + flatIndex(W, at.lijk.x, at.lijk.y, at.lijk.z), at.frac, mix);
        if (T const* halo = cache_.last(at.treeIndex)) return mixHalo(halo, at, mix);
        const Across across(at.lijk);
        const bool isLowest = tile.tile == at.treeIndex && tile.depth == at.treeIndex.depth && !across.below;
        FoundTile const& lowest = isLowest ? tile : lowestTile(at.treeIndex, at.lijk);
        if (!(across.reached & ~lowest.present) || fetchVoxels(lowest, across.reached)) return across.mixed(lowest.voxels, at.frac, mix);
        return mixHalo(fetchHalo(at.treeIndex), at, mix);
    }
    template <class Mix> T mixHalo(T const* halo, LocatedVoxel const& at, Mix const& mix) const
    {
        return this->offsetType_ == kCorner ? mixCompressed(halo, at, mix) : mixOneLayer(halo, at, mix);
    }
    template <class Mix> T readHaloChannel(LocatedVoxel const& at, Mix const& mix) const
    {
        T const* array = haloChannel_->tileData(at.treeIndex).data();
        if (!array) [[unlikely]] return defaultValue_;
        if constexpr (b3 == 1)
            return mixOneLayer(array, at, mix);
        else
            return this->offsetType_ == kCorner ? mixCompressed(array, at, mix) : mixCompressed(array, raised(at), mix);
    }
    /// The compressed form has nothing below a tile's first sample.
    static LocatedVoxel raised(LocatedVoxel at)
    {
        for (int axis = 0; axis < 3; ++axis)
            if (at.lijk[axis] < 0) {
                at.lijk[axis] = 0;
                at.frac[axis] = 0.0f;
            }
        return at;
    }
    /// A stencil that leaves its tile, from the tile of its lowest voxel: where its sites lie, and which of the eight tiles on
    /// the high sides of that one they reach (a bit each).
    struct Across {
        int3 site[2], otherTile;
        std::uint8_t reached;
        bool below;
        explicit Across(int3 const& voxel) : below((voxel.x | voxel.y | voxel.z) < 0)
        {
            // For each set of axes, the tiles along them.
            constexpr std::uint8_t kAlong[8] = {0x01, 0x03, 0x05, 0x0f, 0x11, 0x33, 0x55, 0xff};
            for (int axis = 0; axis < 3; ++axis) {
                const int low = voxel[axis] < 0 ? W - 1 : voxel[axis];
                site[0][axis] = low;
                site[1][axis] = low == W - 1 ? 0 : low + 1;
                otherTile[axis] = (low == W - 1) << axis;
            }
            reached = kAlong[otherTile.x | otherTile.y | otherTile.z];
        }
        template <class Mix> T mixed(void const* const* voxels, float3 const& f, Mix const& mix) const
        {
            const auto corner = [&](int n) -> T const& {
                const int i = n & 1, j = n >> 1 & 1, k = n >> 2;
                const int tile = (i ? otherTile.x : 0) + (j ? otherTile.y : 0) + (k ? otherTile.z : 0);
                return static_cast<T const*>(voxels[tile])[flatIndex(W, site[i].x, site[j].y, site[k].z)];
            };
            return mix(corner, f);
        }
    };
    /// The tile of the depth of `tile` that holds the voxel, which may lie below `tile` on any axis.
    FoundTile const& lowestTile(TreeIndex const& tile, int3 const& voxel) const;
    /// Looks for the voxels of tiles around one; false if there are none, or none of that depth.
    bool fetchVoxels(FoundTile const& lowest, std::uint8_t reached) const;
    T const* fetchHalo(TreeIndex const& tile) const;
    /// Asks for the memory that a read will touch.
    void prefetch(LocatedVoxel const& at) const;

    SourceChannel const* sourceChannel_ = nullptr;
    HaloChannel const* haloChannel_ = nullptr;
    T defaultValue_{};
    /// Without a channel no depth is left.
    int minDepth_ = 0, maxDepth_ = -1;
    mutable Counter queryCounter_;
    mutable HaloCache<Tr, T> cache_{N};
};

#define TILEGRID_LINEAR_SAMPLERS_FOR(KEYWORD, Tr)                                              \
    KEYWORD VoxelSamplerLinear<Tr, float, 1, float, float3, 0, 0, 1, 0>;                       \
    KEYWORD VoxelSamplerLinear<Tr, double, 1, float, float3, 0, 0, 1, 0>;                      \
    KEYWORD VoxelSamplerLinear<Tr, double3, 1, float, float3, 0, 0, 1, 0>;                     \
    KEYWORD VoxelSamplerLinear<Tr, Ostara::Math::float2, 1, float, float3, 0, 0, 1, 0>;        \
    KEYWORD VoxelSamplerLinear<Tr, float3, 1, float, float3, 0, 0, 1, 0>;                      \
    KEYWORD VoxelSamplerLinear<Tr, Ostara::Math::float3x3, 1, float, float3, 0, 0, 1, 0>;      \
    KEYWORD VoxelSamplerLinear<Tr, Ostara::Math::float4, 1, float, float3, 0, 0, 1, 0>;        \
    KEYWORD VoxelSamplerLinear<Tr, Ostara::Math::float4x2, 1, float, float3, 0, 0, 1, 0>;      \
    KEYWORD VoxelSamplerLinear<Tr, Ostara::Math::float4x4, 1, float, float3, 0, 0, 1, 0>;      \
    KEYWORD VoxelSamplerLinear<Tr, float, 10, float, float3, 0, 0, 1, 0>;                      \
    KEYWORD VoxelSamplerLinear<Tr, float, 1, float, float3, 0, 0, 0, 1>;
TILEGRID_LINEAR_SAMPLERS_FOR(extern template class, BinaryTraits)
TILEGRID_LINEAR_SAMPLERS_FOR(extern template class, QuinaryTraits)

}  // namespace OST::TileTree3D
