#include "io/mesh_transform.h"

#include "io/error.h"
#include "io/text.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace tilegrid::io {

using Ostara::Math::double3;
using Ostara::Math::float3;

namespace {

struct Turn {
    double sine, cosine;
};

Turn turnOf(double degrees)
{
    // Whole quarters are taken off first, without rounding, so that they turn the axes into each other exactly.
    int quarters = 0;
    const double rest = std::remquo(degrees, 90.0, &quarters) * (std::numbers::pi / 180.0);
    const double s = std::sin(rest), c = std::cos(rest);
    switch (quarters & 3) {
    case 0: return {s, c};
    case 1: return {c, -s};
    case 2: return {-s, -c};
    default: return {-c, s};
    }
}

void checkTransform(MeshTransform const& transform)
{
    for (int axis = 0; axis < 3; ++axis) {
        if (!(transform.scale[axis] > 0.0) || !std::isfinite(transform.scale[axis]))
            throw InputError("the mesh is to be scaled by " + number(transform.scale[axis])
                             + ": give a positive number");
        if (!std::isfinite(transform.rotate[axis]) || !std::isfinite(transform.move[axis]))
            throw InputError("the mesh is to be turned or moved by a number that is not finite");
    }
}

}  // namespace

void turnUpFromZ(TriangleMesh& mesh)
{
    for (auto* list : {&mesh.vertices, &mesh.normals})
        for (float3& v : *list) v = {v.x, v.z, -v.y};
}

void turnUpToZ(TriangleMesh& mesh)
{
    for (auto* list : {&mesh.vertices, &mesh.normals})
        for (float3& v : *list) v = {v.x, -v.z, v.y};
}

double longestSide(TriangleMesh const& mesh)
{
    double longest = 0.0;
    for (int axis = 0; axis < 3; ++axis) {
        const auto [low, high] = std::minmax_element(mesh.vertices.begin(), mesh.vertices.end(),
                                                     [axis](float3 const& a, float3 const& b) { return a[axis] < b[axis]; });
        if (!mesh.vertices.empty()) longest = std::max(longest, double((*high)[axis]) - double((*low)[axis]));
    }
    return longest;
}

double3 MeshTransform::operator()(double3 const& place) const
{
    double3 p(scale.x * place.x, scale.y * place.y, scale.z * place.z);
    for (int axis = 0; axis < 3; ++axis) {
        const Turn turn = turnOf(rotate[axis]);
        double &u = p[(axis + 1) % 3], &v = p[(axis + 2) % 3];
        const double turned = turn.cosine * u - turn.sine * v;
        v = turn.sine * u + turn.cosine * v;
        u = turned;
    }
    return p + move;
}

bool MeshTransform::isIdentity() const { return scale == double3(1.0) && rotate == double3() && move == double3(); }

void transformMesh(TriangleMesh& mesh, MeshTransform const& transform)
{
    checkTransform(transform);
    if (transform.isIdentity()) return;
    for (float3& vertex : mesh.vertices) {
        vertex = float3(transform(double3(vertex)));
        for (int axis = 0; axis < 3; ++axis)
            if (!std::isfinite(vertex[axis]))
                throw InputError("the mesh, scaled and moved, reaches farther than a float does");
    }
}

}  // namespace tilegrid::io
