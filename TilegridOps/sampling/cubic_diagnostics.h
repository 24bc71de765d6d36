#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/substrate/traits.h"

#include <array>

namespace OST::TileTree3D {

/// Process-wide plain switches of the cubic sampler's messages on standard output. Set them while nothing samples.
struct CubicDiagnostics {
    /// No report when a value turns out NaN.
    bool silent = false;
    /// Tests what goes into every interpolation along an axis across jumps of depth, and what comes out: NaN is reported there,
    /// and becomes 0.
    bool checks = false;
    /// A line at every step of a query across jumps of depth.
    bool traces = false;
};
TILEGRID_API CubicDiagnostics& cubicDiagnostics();

/// What a report tells of a query.
struct CubicQueryState {
    int depth;
    int3 tijk, corner, lijk;
    float3 frac;
    int voxelWidth, tileVoxels, tileWidth;
    bool hasDofs;
    int3 origin;
    struct Place {
        bool valid = false;
        int3 corner;
        int depth = -1;
    };
    /// Number x + 2 y + 4 z.
    std::array<Place, 8> places;
};

/// Prints a report in one piece, unless `silent` is set.
TILEGRID_API void nanInfo(char const* message, CubicQueryState const& state);

/// Prints a line if `traces` is set.
TILEGRID_API void traceCubic(char const* line);

}  // namespace OST::TileTree3D
