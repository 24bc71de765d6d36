#pragma once
#include "TilegridOps/host/math.h"

#include <array>
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

    /// What searches may cost. Once `exactSteps` nodes are visited, a search passes over nodes that are nearer than the best by no more
    /// than a part of it: 2^-20 at first, doubled every `kStepsPerDoubling` nodes. So it ends after some 20 of these, and knows how
    /// much it may be off. That happens only where very many triangles are equally near.
    struct SearchEffort {
        std::int64_t exactSteps;
        /// Nodes visited, for tests.
        std::int64_t steps = 0;

        /// For all samples of a tile together. Tiles of coarser depths are fewer, in the ratio of their areas.
        static SearchEffort ofTile(double spacing)
        {
            // Finest tiles of a scan of 200,000 triangles take 2,000 to 12,000, the more the larger the voxels (0.0005 to 0.01 for a length of 0.2).
            constexpr double kFinestTile = 1 << 14, kMost = 64.0;
            const double share = spacing * spacing;
            return {static_cast<std::int64_t>(kFinestTile * (share < kMost ? share : kMost))};
        }
    };
    static constexpr std::int64_t kStepsPerDoubling = 64;

    struct Nearest {
        /// Of a triangle there is: never less than the true one.
        double squaredDistance;
        /// A number to hand in as the next guess.
        std::int32_t triangle;
        /// The true distance is at least this part of it. 1: it is exact.
        double least = 1.0;
        double leastSquaredDistance() const { return least * least * squaredDistance; }
    };
    /// The smallest distance to any triangle. `guess`, the result for a place near by, only saves time: the distance is
    /// the same to the last bit for every guess, as long as it is exact. \param effort  null: exact at any cost
    Nearest nearest(double3 const& place, std::int32_t guess = 0, SearchEffort* effort = nullptr) const;
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

    /// What winding numbers may cost. A sum that would take more than `steps` nodes and triangles takes parts together that are nearer,
    /// by halving `farFactor`; what it was for one place stays for the next.
    struct WindingEffort {
        std::int64_t exactSteps = 1 << 17;
        double farFactor = kFarFactor;
        /// Nodes and triangles looked at, for tests.
        std::int64_t steps = 0;
    };
    /// A node is far if it is this many times its reach away. Farther costs more triangles; 2 leaves errors of some
    /// hundredths in a winding number, and only a half decides.
    static constexpr double kFarFactor = 2.0;

    /// Signed solid angle of the surface over 4 pi: 1 inside a closed surface with outward normals, 0 outside. Far
    /// parts are taken together, which costs at most some hundredths.
    double windingNumber(double3 const& place) const;
    double windingNumber(double3 const& place, WindingEffort& effort) const;
    /// Whether the surface winds around the place, in either direction. Where it is closed, that is the inside, of each
    /// part that overlaps others too; holes are closed where the winding number is one half.
    bool inside(double3 const& place, WindingEffort& effort) const;

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
    /// A box along axes of its own.
    struct TurnedBox {
        std::array<double3, 3> axes;
        double3 low, high;
    };
    /// A lower bound of the squared distance to the triangles of a node.
    double bound(std::int32_t node, double3 const& place) const;
    bool sumWinding(double3 const& place, double farFactor, std::int64_t limit, std::int64_t& steps, double& angle) const;
    bool overlapsMuch() const;
    void describeTurned();
    std::array<double3, 3> axesOf(Triangle const& triangle) const;
    TurnedBox boxAlong(std::array<double3, 3> const& axes, std::int32_t begin, std::int32_t end) const;
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
    /// By node; empty unless boxes along the axes of the world overlap much.
    std::vector<TurnedBox> turned_;
    double3 low_, high_;
};

}  // namespace tilegrid::io
