#include "benchmarks/support/peer_transform.h"

#include <openvdb/tools/GridTransformer.h>

namespace bench {

float firstOfRotated(openvdb::FloatGrid const& grid, double angle, bool quadratic)
{
    openvdb::Mat4R matrix = openvdb::Mat4R::identity();
    matrix.postRotate(openvdb::math::Z_AXIS, angle);
    const openvdb::tools::GridTransformer transformer(matrix);
    const auto result = openvdb::FloatGrid::create(grid.background());
    result->setTransform(grid.transform().copy());
    result->setGridClass(openvdb::GRID_LEVEL_SET);
    if (quadratic)
        transformer.transformGrid<openvdb::tools::QuadraticSampler, openvdb::FloatGrid>(grid, *result);
    else
        transformer.transformGrid<openvdb::tools::BoxSampler, openvdb::FloatGrid>(grid, *result);
    return *result->cbeginValueOn();
}

}  // namespace bench
