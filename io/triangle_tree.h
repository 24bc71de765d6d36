#pragma once
#include "TilegridOps/host/math.h"

#include <cstdint>
#include <vector>

namespace tilegrid::io {

/// Answers questions about a surface of triangles: where its nearest point is, and how often it winds around a place.
/// Immutable and safe to ask from many threads. All arithmetic is in double, in the units of the vertices.
class TriangleTree {
public:
    using double3 = Ostara::Math::double3;
    using int3 = Ostara::Math::int3;

    /// \param vertices  finite
    /// \param triangles  indices into `vertices`, at least one
    TriangleTree(std::vector<double3> const& vertices, std::vector<int3> const& triangles);

    struct Nearest {
        double squaredDistance;
        /// A number to hand in as the next guess.
        std::int32_t triangle;
    };
    /// The smallest distance to any triangle. `guess`, the result for a place near by, only saves time: the distance is
    /// the same to the last bit for every guess.
    Nearest nearest(double3 const& place, std::int32_t guess = 0) const;
    /// Lists the triangles at most `radius` away. \return how many there are, or `capacity` + 1 if the list is too
    /// short: then it is of no use
    int listNear(double3 const& place, double radius, std::int32_t* list, int capacity) const;
    /// The smallest distance to the triangles of a list that is not empty. The same bits as `nearest`, if the list
    /// holds the nearest one.
    double squaredDistanceTo(double3 const& place, std::int32_t const* list, int count) const;
    /// The nearest point of one triangle.
    double3 nearestPoint(double3 const& place, std::int32_t triangle) const;

    /// A point of a triangle of the constructor's list: weights of its corners, in 0 to 1, that add up to 1.
    struct Barycentric {
        std::int32_t triangle;
        double3 weights;
    };
    /// The same point. \param triangle  the number that `nearest` gave
    Barycentric barycentric(double3 const& place, std::int32_t triangle) const;

    /// Signed solid angle of the surface over 4 pi: 1 inside a closed surface with outward normals, 0 outside. Far
    /// parts are taken together, which costs at most some hundredths.
    double windingNumber(double3 const& place) const;
    /// Whether the surface winds around the place, in either direction. Where it is closed, that is the inside, of each
    /// part that overlaps others too; holes are closed where the winding number is one half.
    bool inside(double3 const& place) const;

    double3 const& low() const { return low_; }
    double3 const& high() const { return high_; }

private:
    struct Triangle {
        double3 a, ab, ac, normal;
        /// 1 / |normal|^2; 0 for a triangle without area, which counts as its three edges.
        double inverseSquaredNormal;
    };
    struct Node {
        double3 low, high;
        /// Inner node: index of the first of two children, count 0. Leaf: its triangles.
        std::int32_t first, count;
    };
    /// What a node is from afar: its vector area at the centre of its area.
    struct Far {
        double3 area, centre;
        double squaredReach;
    };
    void build(std::int32_t node, std::vector<double3> const& centroids, std::vector<std::int32_t>& order,
               std::int32_t begin, std::int32_t end);
    void describeFar();
    static double squaredDistance(Triangle const& triangle, double3 const& place);
    static double3 nearestPoint(Triangle const& triangle, double3 const& place);

    std::vector<Triangle> triangles_;
    /// Their places in the constructor's list.
    std::vector<std::int32_t> sources_;
    std::vector<Node> nodes_;
    std::vector<Far> far_;
    double3 low_, high_;
};

}  // namespace tilegrid::io
