#pragma once

namespace Numerics {

/// Weights of the 3 x 3 x 3 child voxels around a coincident parent voxel, indexed [z][y][x] with the centre at 1: the tensor
/// product of (1/4, 1/2, 1/4). They sum to 1 without rounding, keep linear functions, and are the transpose of linear
/// interpolation (full weighting).
inline constexpr float restrictionStencilOffsetCorner[3][3][3] = {
    {{1 / 64.0f, 2 / 64.0f, 1 / 64.0f}, {2 / 64.0f, 4 / 64.0f, 2 / 64.0f}, {1 / 64.0f, 2 / 64.0f, 1 / 64.0f}},
    {{2 / 64.0f, 4 / 64.0f, 2 / 64.0f}, {4 / 64.0f, 8 / 64.0f, 4 / 64.0f}, {2 / 64.0f, 4 / 64.0f, 2 / 64.0f}},
    {{1 / 64.0f, 2 / 64.0f, 1 / 64.0f}, {2 / 64.0f, 4 / 64.0f, 2 / 64.0f}, {1 / 64.0f, 2 / 64.0f, 1 / 64.0f}}};

}  // namespace Numerics
