#include "TilegridOps/surface/cell_cases.h"

#include <gtest/gtest.h>

#include <bit>

namespace tilegrid::test {
namespace {

using surface::CellCase;
using surface::kCellCases;
using surface::kNoFace;

/// Parts of the corners of one sign, where corners join along edges, and across a face's diagonal if `diagonals` has the face's bit.
int parts(int corners, int diagonals)
{
    int count = 0;
    for (int left = corners; left;) {
        int part = left & -left, grown = 0;
        while (part != grown) {
            grown = part;
            for (int a = 0; a < 8; ++a)
                for (int b = 0; b < 8; ++b) {
                    const int step = a ^ b;
                    if (!(part >> a & 1) || !(corners >> b & 1) || std::popcount(unsigned(step)) > 2) continue;
                    // A diagonal lies in the face normal to the axis that its ends share.
                    const int axis = step == 6 ? 0 : step == 5 ? 1 : 2;
                    if (std::popcount(unsigned(step)) == 1 || diagonals >> (2 * axis + (a >> axis & 1)) & 1) part |= 1 << b;
                }
        }
        left &= ~part;
        ++count;
    }
    return count;
}

TEST(CellCases, cross_the_edges_whose_ends_differ)
{
    for (int negative = 0; negative < 256; ++negative) {
        int expected = 0;
        for (int a = 0; a < 8; ++a)
            for (int axis = 0; axis < 3; ++axis)
                expected += !(a >> axis & 1) && (negative >> a & 1) != (negative >> (a | 1 << axis) & 1);
        EXPECT_EQ(std::popcount(unsigned(kCellCases[0][std::size_t(negative)].edges)), expected) << negative;
    }
}

/// A sheet is a loop on the border of the cell, and loops on a sphere part it into one region more than there are loops. The regions
/// are the parts of the corners inside, which no face joins across its diagonal, and those outside, which every face joins.
TEST(CellCases, have_as_many_sheets_as_part_the_corners)
{
    for (int negative = 0; negative < 256; ++negative)
        EXPECT_EQ(kCellCases[0][std::size_t(negative)].sheets, parts(negative, 0) + parts(~negative & 255, 63) - 1) << negative;
}

TEST(CellCases, double_at_most_one_face_and_part_its_sheets_when_flipped)
{
    int doubled = 0;
    for (int negative = 0; negative < 256; ++negative) {
        CellCase const& normal = kCellCases[0][std::size_t(negative)];
        CellCase const& flipped = kCellCases[1][std::size_t(negative)];
        EXPECT_EQ(flipped.doubledFace, kNoFace) << negative;
        if (normal.doubledFace == kNoFace) {
            EXPECT_EQ(flipped.sheets, normal.sheets);
            continue;
        }
        ++doubled;
        const int face = 1 << normal.doubledFace;
        EXPECT_EQ(flipped.sheets, parts(negative, face) + parts(~negative & 255, 63 & ~face) - 1) << negative;
        EXPECT_GT(flipped.sheets, normal.sheets);
    }
    EXPECT_GT(doubled, 0);
}

}  // namespace
}  // namespace tilegrid::test
