#include "TilegridOps/merge/fold.h"
#include "merge_volumes.h"

namespace tilegrid::test {
namespace {

constexpr int kCount = 13;  // neither a whole number of vectors nor less than one
constexpr LevelSetMode kModes[] = {LevelSetMode::kUnion, LevelSetMode::kDifference, LevelSetMode::kIntersection, LevelSetMode(7)};
using Row = std::array<float, kCount>;

/// Few different numbers, so that ties are common; zeros of both signs and, rarely, a NaN.
float someNumber(Random& random, int low, int high)
{
    if (random.oneIn(60)) return std::numeric_limits<float>::quiet_NaN();
    const auto number = float(random.between(low, high));
    return number == 0 && random.oneIn(2) ? -0.0f : number;
}
Row someRow(Random& random, int low, int high)
{
    Row row;
    for (float& number : row) number = someNumber(random, low, high);
    return row;
}
bool sameRow(Row const& a, Row const& b) { return std::memcmp(a.data(), b.data(), sizeof a) == 0; }

/// Numbers of a row within bounds, both ends among them.
Row withinBounds(Random& random, ValueBounds const& bounds)
{
    Row row;
    for (float& number : row) number = std::clamp(float(random.between(-4, 4)), bounds.low, bounds.high);
    row[0] = bounds.low, row[1] = bounds.high;
    if (bounds.low <= 0 && bounds.high >= 0) row[2] = 0.0f, row[3] = -0.0f;
    return row;
}

TEST(LevelSetBounds, a_fold_that_is_left_out_would_have_changed_nothing)
{
    Random random(1);
    int kept = 0;
    for (int n = 0; n < 60000; ++n) {
        const LevelSetMode mode = kModes[n % 4];
        const bool notesWinners = n / 4 % 2;
        const int middle = int(random.between(-2, 2));
        const Row values = someRow(random, middle, middle + 1);
        const auto low = float(random.between(-4, 4));
        const ValueBounds bounds{low, low + float(random.below(3))};
        if (!keepsLevelSet(mode, values.data(), bounds, notesWinners, kCount)) continue;
        ++kept;
        const Row samples = withinBounds(random, bounds);
        Row folded = values;
        std::array<signed char, kCount> winners{};
        if (notesWinners)
            foldLevelSet(mode, folded.data(), samples.data(), winners.data(), kCount);
        else
            foldLevelSet(mode, folded.data(), samples.data(), kCount);
        ASSERT_TRUE(sameRow(folded, values));
        for (signed char winner : winners) ASSERT_EQ(winner, 0);
    }
    EXPECT_GT(kept, 10000);
}

TEST(LevelSetBounds, values_that_are_not_read_would_have_been_replaced)
{
    Random random(2);
    int replaced = 0;
    for (int n = 0; n < 60000; ++n) {
        const LevelSetMode mode = kModes[n % 4];
        const int middle = int(random.between(-2, 2));
        const Row samples = someRow(random, middle, middle + 1);
        const auto low = float(random.between(-4, 4));
        const ValueBounds bounds{low, low + float(random.below(3))};
        if (!replacesLevelSet(mode, bounds, samples.data(), kCount)) continue;
        ++replaced;
        const Row values = withinBounds(random, bounds);
        Row quick = values, folded = values, noted = values;
        std::array<signed char, kCount> winners{};
        replaceLevelSet(mode, quick.data(), samples.data(), kCount);
        foldLevelSet(mode, folded.data(), samples.data(), kCount);
        foldLevelSet(mode, noted.data(), samples.data(), winners.data(), kCount);
        ASSERT_TRUE(sameRow(quick, folded) && sameRow(quick, noted));
        for (signed char winner : winners) ASSERT_EQ(winner, 1);
    }
    EXPECT_GT(replaced, 5000);
}

TEST(LevelSetBounds, a_mode_without_a_name_is_never_left_out)
{
    const Row row{};
    EXPECT_FALSE(keepsLevelSet(LevelSetMode(7), row.data(), {5, 6}, false, kCount));
    EXPECT_FALSE(replacesLevelSet(LevelSetMode(7), {5, 6}, row.data(), kCount));
}

}  // namespace
}  // namespace tilegrid::test
