#pragma once
#include "TilegridOps/surface/leaf_field.h"

#include <unordered_map>
#include <vector>

namespace tilegrid::surface {

/// A piece of lattice edge that no leaf cell divides further, whose ends differ in sign.
struct Crossing {
    int3 node;
    std::int8_t axis, depth;
    /// Values at the low end, `node`, and at the high one.
    double low, high;
    int sheet;
};

/// The surface in one leaf cell, whatever lies around the cell.
///
/// Why the mesh closes: the faces of all leaf cells, each divided as far as the finer side divides it, with their edges divided as
/// far as any cell around an edge does, make a conforming complex: each face has one cell on either side. Going around a face, signs
/// at nodes change an even number of times, and the face joins these crossings in pairs, by a rule that looks at the face alone (or at
/// both its cells in the same way). On the border of a cell every crossing lies in two faces, so that the pairs make closed loops:
/// the cell's sheets, a vertex each. The polygon around a crossing has the sheets of the cells around it for corners, and its sides
/// are the pairs of the faces between them. A pair has two crossings, so each side belongs to two polygons.
///
/// One per thread.
template <class Tr> class CellSheets {
public:
    explicit CellSheets(LeafField<Tr>& field) : field_(&field) {}

    /// \param low  the low corner of a leaf cell of that depth
    void analyze(int3 const& low, int depth);
    std::vector<Crossing> const& crossings() const { return crossings_; }
    int sheets() const { return sheets_; }
    /// Whether the cell on the other side of a doubled face (2 * axis + side) of this leaf cell is doubled there as well: the
    /// face is then split the other way. For cells whose face and edges are whole.
    bool flips(int3 const& low, int depth, int face);

private:
    struct Step {
        int crossing;
        bool enters;
    };
    /// A minimal face: the square from `low` on, normal to `axis`.
    struct Face {
        int3 low;
        int axis, side, depth;
        int firstStep, stepCount;
        bool flipped;
        bool sameSquare(Face const& other) const { return axis == other.axis && depth == other.depth && low == other.low; }
    };
    void walk(int3 const& low, int depth);
    void walkFace(Face face);
    void walkMinimalFace(Face face);
    void walkEdge(int3 const& node, int axis, int depth, bool reversed);
    void addCrossing(int3 const& node, int axis, int depth, bool reversed);
    int findCrossing(int3 const& node, int axis) const;
    void joinPairs();
    void numberSheets();
    int groupOf(int crossing);
    bool doubled(Face const& face);
    bool doubledBeyond(Face const& face);

    struct Place {
        int3 node;
        int axis;
        bool operator==(Place const& other) const { return axis == other.axis && node == other.node; }
    };
    struct PlaceHash {
        std::size_t operator()(Place const& p) const { return hashOf(p.node) * 3 + std::size_t(p.axis); }
    };
    /// Up to this many crossings, the list itself is searched; a coarse cell beside much finer ones has more.
    static constexpr std::size_t kListed = 48;

    LeafField<Tr>* field_;
    std::vector<Crossing> crossings_;
    std::unordered_map<Place, int, PlaceHash> places_;
    std::vector<int> group_;
    std::vector<Step> steps_;
    std::vector<Face> faces_;
    int sheets_ = 0;
};

extern template class CellSheets<OST::TileTree3D::BinaryTraits>;
extern template class CellSheets<OST::TileTree3D::QuinaryTraits>;

}  // namespace tilegrid::surface
