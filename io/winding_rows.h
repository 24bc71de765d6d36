#pragma once
#include "TilegridOps/host/math.h"

#include <cstdint>
#include <vector>

namespace tilegrid::io {

/// Which places of a lattice a closed surface winds around: the crossings of the surface with every line of the lattice along x, in
/// order. Exact whatever the triangles are (needles, copies, parts that overlap or touch): a line next to an edge or a vertex
/// crosses all triangles there or none, since the cut of an edge with a plane of the lattice is computed from the edge alone.
///
/// The time is that of cutting every triangle with the planes z = 0, 1, ... and the lines of the lattice on them.
/// Immutable and safe to ask from many threads.
class WindingRows {
public:
    using double3 = Ostara::Math::double3;
    using int3 = Ostara::Math::int3;

    /// \param vertices   finite, less than 2^30 from the origin
    /// \param triangles  closed: along every edge as many one way as the other
    WindingRows(std::vector<double3> const& vertices, std::vector<int3> const& triangles);

    /// Writes whether the surface winds around the places first, first + (spacing, 0, 0), ..., in either direction.
    void findInside(int3 const& first, int spacing, int count, bool* inside) const;
    /// Crossings kept, for tests: those at one place of a line count once.
    std::int64_t crossings() const;

private:
    /// Where the winding number along a line changes: from the place x on it is `winding`.
    struct Change {
        std::int32_t x, winding;
    };
    struct Row {
        std::int32_t y;
        /// Where its changes begin; they end where those of the next row begin.
        std::uint32_t begin;
    };
    /// The rows of one plane z, by y; a last one without changes ends them.
    struct Plane {
        std::vector<Row> rows;
        std::vector<Change> changes;
    };
    struct Hit;
    struct Edges;
    static void mergeHits(std::vector<Hit>& hits);
    static Plane planeOf(std::vector<Hit>& hits);
    void cutPlanes(Edges const& edges, std::int64_t begin, std::int64_t end, std::vector<std::int32_t> const& triangles);

    std::int32_t firstPlane_ = 0;
    std::vector<Plane> planes_;
};

}  // namespace tilegrid::io
