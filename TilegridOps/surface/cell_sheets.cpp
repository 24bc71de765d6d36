#include "TilegridOps/surface/cell_sheets.h"

#include <algorithm>

namespace tilegrid::surface {

using namespace OST::TileTree3D;

namespace {

int3 moved(int3 node, int axis, int distance)
{
    node[axis] += distance;
    return node;
}

}  // namespace

template <class Tr> void CellSheets<Tr>::analyze(int3 const& low, int depth)
{
    walk(low, depth);
    // A sheet that crosses one face twice makes the same mesh edge twice if the sheet beyond does so too. Split the other way, the
    // face parts one of the two.
    bool any = false;
    for (Face& face : faces_) {
        face.flipped = face.stepCount >= 4 && doubled(face) && doubledBeyond(face);
        any |= face.flipped;
    }
    if (any) joinPairs();
    numberSheets();
}

template <class Tr> bool CellSheets<Tr>::flips(int3 const& low, int depth, int face)
{
    const int width = Tr::voxelDataWidth(depth), axis = face / 2, side = face % 2;
    return doubledBeyond({moved(low, axis, side * width), axis, side, depth, 0, 0, false});
}

template <class Tr> void CellSheets<Tr>::walk(int3 const& low, int depth)
{
    crossings_.clear();
    places_.clear();
    group_.clear();
    steps_.clear();
    faces_.clear();
    const int width = Tr::voxelDataWidth(depth);
    for (int axis = 0; axis < 3; ++axis)
        for (int side = 0; side < 2; ++side)
            walkFace({moved(low, axis, side * width), axis, side, depth, 0, 0, false});
    joinPairs();
}

template <class Tr> void CellSheets<Tr>::walkFace(Face face)
{
    if (!field_->divided(moved(face.low, face.axis, face.side - 1), face.depth)) return walkMinimalFace(face);
    ++face.depth;
    const int b = (face.axis + 1) % 3, c = (face.axis + 2) % 3, width = Tr::voxelDataWidth(face.depth);
    const int3 low = face.low;
    for (int v = 0; v < Tr::branching; ++v)
        for (int u = 0; u < Tr::branching; ++u) {
            face.low = moved(moved(low, b, u * width), c, v * width);
            walkFace(face);
        }
}

template <class Tr> void CellSheets<Tr>::walkMinimalFace(Face face)
{
    const int b = (face.axis + 1) % 3, c = (face.axis + 2) % 3, width = Tr::voxelDataWidth(face.depth);
    face.firstStep = int(steps_.size());
    walkEdge(face.low, b, face.depth, false);
    walkEdge(moved(face.low, b, width), c, face.depth, false);
    walkEdge(moved(face.low, c, width), b, face.depth, true);
    walkEdge(face.low, c, face.depth, true);
    face.stepCount = int(steps_.size()) - face.firstStep;
    if (face.stepCount > 0) faces_.push_back(face);
}

template <class Tr> void CellSheets<Tr>::walkEdge(int3 const& node, int axis, int depth, bool reversed)
{
    const int b = (axis + 1) % 3, c = (axis + 2) % 3;
    bool divided = false;
    for (int quadrant = 0; quadrant < 4 && !divided; ++quadrant)
        divided = field_->divided(moved(moved(node, b, -(quadrant & 1)), c, -(quadrant >> 1)), depth);
    if (!divided) return addCrossing(node, axis, depth, reversed);
    const int width = Tr::voxelDataWidth(depth + 1);
    for (int n = 0; n < Tr::branching; ++n)
        walkEdge(moved(node, axis, (reversed ? Tr::branching - 1 - n : n) * width), axis, depth + 1, reversed);
}

template <class Tr> void CellSheets<Tr>::addCrossing(int3 const& node, int axis, int depth, bool reversed)
{
    const double low = field_->at(node).value, high = field_->at(moved(node, axis, Tr::voxelDataWidth(depth))).value;
    if (isInside(low) == isInside(high)) return;
    const int found = findCrossing(node, axis), next = int(crossings_.size());
    steps_.push_back({found < 0 ? next : found, isInside(reversed ? low : high)});
    if (found >= 0) return;
    crossings_.push_back({node, std::int8_t(axis), std::int8_t(depth), low, high, 0});
    if (crossings_.size() == kListed)
        for (std::size_t n = 0; n < kListed; ++n) places_[{crossings_[n].node, crossings_[n].axis}] = int(n);
    else if (crossings_.size() > kListed)
        places_[{node, axis}] = next;
}

template <class Tr> int CellSheets<Tr>::findCrossing(int3 const& node, int axis) const
{
    if (crossings_.size() < kListed) {
        for (std::size_t n = 0; n < crossings_.size(); ++n)
            if (crossings_[n].axis == axis && crossings_[n].node == node) return int(n);
        return -1;
    }
    const auto found = places_.find({node, axis});
    return found == places_.end() ? -1 : found->second;
}

template <class Tr> int CellSheets<Tr>::groupOf(int crossing)
{
    auto n = std::size_t(crossing);
    while (group_[n] != int(n)) n = std::size_t(group_[n] = group_[std::size_t(group_[n])]);
    return int(n);
}

template <class Tr> void CellSheets<Tr>::joinPairs()
{
    group_.resize(crossings_.size());
    for (std::size_t n = 0; n < group_.size(); ++n) group_[n] = int(n);
    for (Face const& face : faces_) {
        // The ends of each negative run belong together; in a flipped face those of each positive one.
        for (int n = 0; n < face.stepCount; ++n) {
            Step const& step = steps_[std::size_t(face.firstStep + n)];
            if (step.enters == face.flipped) continue;
            const int a = groupOf(step.crossing), b = groupOf(steps_[std::size_t(face.firstStep + (n + 1) % face.stepCount)].crossing);
            group_[std::size_t(std::max(a, b))] = std::min(a, b);
        }
    }
}

template <class Tr> void CellSheets<Tr>::numberSheets()
{
    // A group goes by its first crossing, which is numbered before the others.
    sheets_ = 0;
    for (std::size_t n = 0; n < crossings_.size(); ++n) {
        const int group = groupOf(int(n));
        crossings_[n].sheet = group == int(n) ? sheets_++ : crossings_[std::size_t(group)].sheet;
    }
}

template <class Tr> bool CellSheets<Tr>::doubled(Face const& face)
{
    // One crossing of each pair.
    for (int n = 0; n < face.stepCount; ++n)
        for (int m = n + 1; m < face.stepCount; ++m) {
            Step const &a = steps_[std::size_t(face.firstStep + n)], &b = steps_[std::size_t(face.firstStep + m)];
            if (a.enters && b.enters && groupOf(a.crossing) == groupOf(b.crossing)) return true;
        }
    return false;
}

template <class Tr> bool CellSheets<Tr>::doubledBeyond(Face const& face)
{
    const int3 place = moved(face.low, face.axis, face.side - 1);
    const TreeIndex tile = field_->leafTile(place);
    if (!tile.valid()) return false;
    CellSheets beyond(*field_);
    beyond.walk(field_->cellCorner(tile, place), tile.depth);
    return std::any_of(beyond.faces_.begin(), beyond.faces_.end(),
                       [&](Face const& other) { return other.sameSquare(face) && beyond.doubled(other); });
}

template class CellSheets<BinaryTraits>;
template class CellSheets<QuinaryTraits>;

}  // namespace tilegrid::surface
