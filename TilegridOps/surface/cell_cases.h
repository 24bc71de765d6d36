#pragma once
#include <array>
#include <cstdint>

/// The surface in a cell whose faces and edges are whole, by the signs at its eight corners.
///
/// Corner n is the high one along x, y, z if bit 0, 1, 2 of n is set. Edge 4a + u + 2v runs along axis a, on the high side of
/// axis a+1 if u is 1 and of axis a+2 if v is 1 (axes modulo 3). Face 2a + s is normal to axis a, on the high side if s is 1.
namespace tilegrid::surface {

constexpr int edgeNumber(int axis, int u, int v) { return 4 * axis + u + 2 * v; }
/// The low end of an edge, as a corner.
constexpr int edgeCorner(int edge) { return (edge & 1) << (edge / 4 + 1) % 3 | (edge >> 1 & 1) << (edge / 4 + 2) % 3; }

inline constexpr int kNoFace = 6;

struct CellCase {
    /// A bit for each edge whose ends differ in sign.
    std::uint16_t edges = 0;
    std::uint8_t sheets = 0;
    /// The face that one sheet crosses twice; `kNoFace` if there is none. There is never more than one.
    std::uint8_t doubledFace = kNoFace;
    std::array<std::uint8_t, 12> sheetOf{};
};

namespace detail {

/// A step of the walk around a face: from its low corner along axis n+1, along n+2, and back. The same walk for the cells on
/// both sides.
struct FaceStep {
    int edge;
    bool reversed;
};
constexpr std::array<FaceStep, 4> faceSteps(int face)
{
    const int s = face & 1, b = (face / 2 + 1) % 3, c = (face / 2 + 2) % 3;
    return {{{edgeNumber(b, 0, s), false}, {edgeNumber(c, s, 1), false}, {edgeNumber(b, 1, s), true}, {edgeNumber(c, s, 0), true}}};
}

/// The crossed edges of a face in the order of the walk; `enters` if the walk goes into the negative part there.
struct FaceCrossings {
    int count = 0;
    std::array<int, 4> edge{};
    std::array<bool, 4> enters{};
    /// What pairs with crossing n, if n opens a pair: normally the ends of a negative run, flipped those of a positive one.
    constexpr bool opens(int n, bool flipped) const { return enters[n] != flipped; }
    constexpr int partner(int n) const { return edge[(n + 1) % count]; }

    constexpr FaceCrossings(int face, int negative)
    {
        for (FaceStep const& step : faceSteps(face)) {
            const int low = edgeCorner(step.edge), high = low | 1 << step.edge / 4;
            const bool lowIn = negative >> low & 1, highIn = negative >> high & 1;
            if (lowIn == highIn) continue;
            edge[count] = step.edge;
            enters[count++] = step.reversed ? lowIn : highIn;
        }
    }
};

constexpr std::array<int, 12> joinedEdges(int negative, int flippedFace)
{
    std::array<int, 12> group{};
    for (int e = 0; e < 12; ++e) group[e] = e;
    for (int face = 0; face < 6; ++face) {
        const FaceCrossings crossings(face, negative);
        for (int n = 0; n < crossings.count; ++n) {
            if (!crossings.opens(n, face == flippedFace)) continue;
            const int from = group[crossings.partner(n)], to = group[crossings.edge[n]];
            for (int& g : group)
                if (g == from) g = to;
        }
    }
    return group;
}

constexpr CellCase cellCase(int negative, int flippedFace)
{
    CellCase result;
    const auto group = joinedEdges(negative, flippedFace);
    std::array<int, 12> sheetOfGroup{};
    for (int& s : sheetOfGroup) s = -1;
    for (int e = 0; e < 12; ++e) {
        const int low = edgeCorner(e), high = low | 1 << e / 4;
        if ((negative >> low & 1) == (negative >> high & 1)) continue;
        result.edges = static_cast<std::uint16_t>(result.edges | 1 << e);
        int& sheet = sheetOfGroup[group[e]];
        if (sheet < 0) sheet = result.sheets++;
        result.sheetOf[e] = static_cast<std::uint8_t>(sheet);
    }
    for (int face = 0; face < 6; ++face) {
        const FaceCrossings crossings(face, negative);
        if (crossings.count == 4 && group[crossings.edge[0]] == group[crossings.edge[1]]
            && group[crossings.edge[0]] == group[crossings.edge[2]] && group[crossings.edge[0]] == group[crossings.edge[3]])
            result.doubledFace = static_cast<std::uint8_t>(face);
    }
    return result;
}

}  // namespace detail

/// By whether the doubled face is flipped, and by the bits of the negative corners.
inline constexpr auto kCellCases = [] {
    std::array<std::array<CellCase, 256>, 2> cases{};
    for (int negative = 0; negative < 256; ++negative) {
        cases[0][negative] = detail::cellCase(negative, kNoFace);
        cases[1][negative] = detail::cellCase(negative, cases[0][negative].doubledFace);
    }
    return cases;
}();

}  // namespace tilegrid::surface
