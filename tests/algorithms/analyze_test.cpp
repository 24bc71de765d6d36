#include "TilegridOps/algorithms/analyze.h"
#include "TilegridOps/substrate/dependent_values.h"
#include "support/field_volumes.h"
#include "support/jobs.h"

namespace tilegrid::test {
namespace {

using namespace VolumeGL::TileTree3D::Analyze;
using Ostara::Math::float3x3;
using VolumeGL::TileTree3D::analyze;

/// f = x^2 + 2xy + z, its gradient (linear, so that every mix of exact values is exact) and its Laplacian.
double quadratic(double3 const& p) { return p.x * p.x + 2 * p.x * p.y + p.z; }
double3 quadraticGradient(double3 const& p) { return {2 * p.x + 2 * p.y, 2 * p.x, 1}; }
constexpr double kQuadraticLaplacian = 2;

double sphere(double3 const& p, double radius) { return length(p) - radius; }

template <class Tr> Corvid::MutablePtr<Native> fieldVolume(int half, Layout layout, std::function<double(double3 const&)> const& f, float voxelSize = 1.0f)
{
    auto volume = boxVolume<Tr>(half, layout, voxelSize);
    addField<Tr, float>(*volume, "f", [&f](double3 const& p) { return float(f(p)); });
    return volume;
}

template <class Tr> class AnalyzeTest : public ::testing::Test {
public:
    /// The jump at x = 0 and both sides of it, away from the border of the fine tiles.
    static constexpr int kHalf = 24, kInner = 16;
};
TYPED_TEST_SUITE(AnalyzeTest, Structures, StructureNames);

TYPED_TEST(AnalyzeTest, gradient_and_laplacian_of_a_quadratic_are_exact_also_at_a_jump)
{
    for (Layout layout : {Layout::kUniform, Layout::kJump}) {
        auto volume = fieldVolume<TypeParam>(this->kHalf, layout, quadratic, 0.5f);
        ASSERT_TRUE(analyze<GradientOperator>("f", "g", true, *volume));
        ASSERT_TRUE(analyze<LaplacianOperator>("f", "l", true, *volume));
        double gradientError = 0, laplacianError = 0;
        forLeafVoxels<TypeParam, float3>(*volume, "g", [&](double3 const& p, float3 const& g, int, auto const&, int) {
            if (within(p, 0.5 * this->kInner)) gradientError = std::max(gradientError, length(double3(g) - quadraticGradient(p)));
        });
        forLeafVoxels<TypeParam, float>(*volume, "l", [&](double3 const& p, float l, int, auto const&, int) {
            if (within(p, 0.5 * this->kInner)) laplacianError = std::max(laplacianError, std::abs(l - kQuadraticLaplacian));
        });
        // Largest gradient 32, Laplacian 2.
        EXPECT_LE(gradientError, 1e-3 * 32);
        EXPECT_LE(laplacianError, 1e-3 * 2);
    }
}

TYPED_TEST(AnalyzeTest, gradient_is_of_second_order_at_a_jump)
{
    // The error of central differences, 2h^2/6 of the third derivative on the coarse side, and no more where stencils meet the jump.
    constexpr double k = 0.11;
    auto volume = fieldVolume<TypeParam>(this->kHalf, Layout::kJump, [](double3 const& p) { return std::sin(k * p.x) * std::cos(k * p.y); });
    ASSERT_TRUE(analyze<GradientOperator>("f", "g", true, *volume));
    const double h = TypeParam::branching;
    double worst = 0;
    forLeafVoxels<TypeParam, float3>(*volume, "g", [&](double3 const& p, float3 const& g, int, auto const&, int) {
        if (!within(p, this->kInner)) return;
        const double3 exact(k * std::cos(k * p.x) * std::cos(k * p.y), -k * std::sin(k * p.x) * std::sin(k * p.y), 0);
        worst = std::max(worst, length(double3(g) - exact));
    });
    // Differences of the coarse lattice: h^2/6 k^3 per axis. Interpolating them: h^2/8 times second derivatives, 2 k^3 along three axes.
    EXPECT_LE(worst, h * h * k * k * k * (std::sqrt(2.0) / 6 + 3.0 / 8 * 2));
    EXPECT_GT(worst, 0);
}

TYPED_TEST(AnalyzeTest, mean_curvature_of_a_sphere_is_1_by_its_radius)
{
    constexpr double kRadius = 20;
    for (Layout layout : {Layout::kUniform, Layout::kJump}) {
        auto volume = fieldVolume<TypeParam>(30, layout, [](double3 const& p) { return sphere(p, kRadius); });
        ASSERT_TRUE(analyze<MeanCurvatureOperator>("f", "k", true, *volume));
        double worst = 0;
        int seen = 0;
        forLeafVoxels<TypeParam, float>(*volume, "k", [&](double3 const& p, float k, int, auto const&, int) {
            if (std::abs(sphere(p, kRadius)) > 2 || !within(p, 28)) return;
            // Of the level surface through the voxel: the one of radius |p|.
            worst = std::max(worst, std::abs(k * length(p) - 1));
            ++seen;
        });
        EXPECT_GT(seen, 1000);
        EXPECT_LE(worst, layout == Layout::kUniform ? 0.01 : 0.05);
    }
}

TYPED_TEST(AnalyzeTest, closest_point_lies_on_the_sphere)
{
    constexpr double kRadius = 10;
    auto volume = fieldVolume<TypeParam>(30, Layout::kUniform, [](double3 const& p) { return sphere(p, kRadius); }, 0.5f);
    ASSERT_TRUE(analyze<ClosestPointOperator>("f", "c", true, *volume));
    double off = 0, turned = 0;
    forLeafVoxels<TypeParam, float3>(*volume, "c", [&](double3 const& p, float3 const& c, int, auto const&, int) {
        if (std::abs(sphere(p, kRadius)) > 2) return;
        off = std::max(off, std::abs(length(double3(c)) - kRadius));
        turned = std::max(turned, length(double3(c) - (kRadius / length(p)) * p));
    });
    EXPECT_LE(off, 0.01 * 0.5);
    EXPECT_LE(turned, 0.02 * 0.5);
}

TYPED_TEST(AnalyzeTest, closest_point_of_a_flat_field_is_the_voxel_itself)
{
    auto volume = fieldVolume<TypeParam>(8, Layout::kUniform, [](double3 const&) { return 3.0; });
    ASSERT_TRUE(analyze<ClosestPointOperator>("f", "c", true, *volume));
    forLeafVoxels<TypeParam, float3>(*volume, "c", [&](double3 const& p, float3 const& c, int, auto const&, int) {
        if (within(p, 8)) { EXPECT_EQ(length(double3(c) - p), 0); }
    });
}

TYPED_TEST(AnalyzeTest, divergence_and_curl_are_exact_for_quadratic_fields)
{
    for (Layout layout : {Layout::kUniform, Layout::kJump}) {
        auto volume = boxVolume<TypeParam>(this->kHalf, layout);
        // v = (x y, y z, z x): div = y + z + x, curl = (-y, -z, -x).
        addField<TypeParam, float3>(*volume, "v", [](double3 const& p) { return float3(double3(p.x * p.y, p.y * p.z, p.z * p.x)); });
        ASSERT_TRUE(analyze<DivergenceOperator>("v", "div", true, *volume));
        ASSERT_TRUE(analyze<CurlOperator>("v", "curl", true, *volume));
        double worst = 0;
        forLeafVoxels<TypeParam, float>(*volume, "div", [&](double3 const& p, float d, int, auto const&, int) {
            if (within(p, this->kInner)) worst = std::max(worst, std::abs(d - (p.x + p.y + p.z)));
        });
        forLeafVoxels<TypeParam, float3>(*volume, "curl", [&](double3 const& p, float3 const& c, int, auto const&, int) {
            if (within(p, this->kInner)) worst = std::max(worst, length(double3(c) + double3(p.y, p.z, p.x)));
        });
        EXPECT_LE(worst, 1e-3);
    }
}

TYPED_TEST(AnalyzeTest, curl_of_a_gradient_vanishes)
{
    auto volume = fieldVolume<TypeParam>(this->kHalf, Layout::kUniform, [](double3 const& p) { return std::sin(0.1 * p.x) * std::cos(0.13 * p.y) * p.z; });
    ASSERT_TRUE(analyze<GradientOperator>("f", "g", true, *volume));
    ASSERT_TRUE(analyze<CurlOperator>("g", "c", true, *volume));
    double worst = 0;
    forLeafVoxels<TypeParam, float3>(*volume, "c", [&](double3 const& p, float3 const& c, int, auto const&, int) {
        if (within(p, this->kInner)) worst = std::max(worst, length(double3(c)));
    });
    EXPECT_LE(worst, 1e-3);
}

TYPED_TEST(AnalyzeTest, gradient_of_a_vector_has_a_row_for_each_component)
{
    auto volume = boxVolume<TypeParam>(this->kHalf, Layout::kJump);
    addField<TypeParam, float3>(*volume, "v", [](double3 const& p) { return float3(double3(p.x * p.y, 2 * p.z, 5 * p.x - p.y * p.y)); });
    ASSERT_TRUE(analyze<GradientOperator>("v", "g", true, *volume));
    double worst = 0;
    forLeafVoxels<TypeParam, float3x3>(*volume, "g", [&](double3 const& p, float3x3 const& g, int, auto const&, int) {
        if (!within(p, this->kInner)) return;
        const double exact[3][3] = {{p.y, p.x, 0}, {0, 0, 2}, {5, -2 * p.y, 0}};
        for (int row = 0; row < 3; ++row)
            for (int column = 0; column < 3; ++column) worst = std::max(worst, std::abs(g(row, column) - exact[row][column]));
    });
    EXPECT_LE(worst, 1e-3);
}

TYPED_TEST(AnalyzeTest, floats_by_rows_and_doubles_voxel_by_voxel_agree)
{
    const auto f = [](double3 const& p) { return sphere(p, 15) + 0.3 * std::sin(0.4 * p.x) * std::cos(0.3 * p.z); };
    auto volume = fieldVolume<TypeParam>(20, Layout::kJump, f);
    // The same floats, so that only arithmetic differs.
    addField<TypeParam, double>(*volume, "d", [&f](double3 const& p) { return double(float(f(p))); });
    for (char const* name : {"f", "d"}) {
        const Corvid::String property(name), curvature(name + std::string("k")), laplacian(name + std::string("l"));
        ASSERT_TRUE(analyze<MeanCurvatureOperator>(property, curvature, true, *volume));
        ASSERT_TRUE(analyze<LaplacianOperator>(property, laplacian, true, *volume));
    }
    const auto tree = treeOf<TypeParam>(*volume);
    for (char const* kind : {"k", "l"}) {
        const auto single = volume->template component<PlainChannel<TypeParam>>("f" + std::string(kind));
        const auto twice = volume->template component<PlainChannel<TypeParam, double>>("d" + std::string(kind));
        double worst = 0;
        for (int d = TypeParam::maxDepth - 2; d <= TypeParam::maxDepth; ++d)
            for (OST::int64 n = 0; n < tree->tileCount(d); ++n)
                for (int v = 0; v < TypeParam::voxelCount; ++v) {
                    const double exact = twice->tileData(n, d)(v);
                    // Rounding of sums of values up to 1500 at coarse voxels, less at fine ones; curvature has gradients near 1.
                    worst = std::max(worst, std::abs(single->tileData(n, d)(v) - exact) / (1 + std::abs(exact)));
                }
        EXPECT_LE(worst, 2e-4) << kind;
    }
}

TYPED_TEST(AnalyzeTest, lengths_and_directions_are_those_of_the_voxel)
{
    auto volume = boxVolume<TypeParam>(12, Layout::kUniform);
    addField<TypeParam, float3>(*volume, "v", [](double3 const& p) { return float3(p); });
    addField<TypeParam, float>(*volume, "f", [](double3 const& p) { return float(p.x); });
    ASSERT_TRUE(analyze<MagnitudeOperator>("v", "vm", true, *volume));
    ASSERT_TRUE(analyze<NormalizeOperator>("v", "vn", true, *volume));
    ASSERT_TRUE(analyze<MagnitudeOperator>("f", "fm", true, *volume));
    ASSERT_TRUE(analyze<NormalizeOperator>("f", "fn", true, *volume));
    forLeafVoxels<TypeParam, float>(*volume, "vm", [](double3 const& p, float m, int, auto const&, int) {
        if (within(p, 8)) { EXPECT_NEAR(m, length(p), 1e-6 * length(p)); }
    });
    forLeafVoxels<TypeParam, float3>(*volume, "vn", [](double3 const& p, float3 const& n, int, auto const&, int) {
        if (within(p, 8)) { EXPECT_NEAR(length(double3(n) - (1 / std::max(length(p), 1e-9)) * p), 0, 1e-6); }
    });
    forLeafVoxels<TypeParam, float>(*volume, "fm", [](double3 const& p, float m, int, auto const&, int) {
        if (within(p, 8)) { EXPECT_EQ(m, std::abs(p.x)); }
    });
    forLeafVoxels<TypeParam, float>(*volume, "fn", [](double3 const& p, float n, int, auto const&, int) {
        if (within(p, 8)) { EXPECT_EQ(n, p.x > 0 ? 1 : p.x < 0 ? -1 : 0); }
    });
}

TYPED_TEST(AnalyzeTest, is_one_sided_where_the_data_ends)
{
    // Only the finest depth has data, so the box ends in nothing; three points are exact for a quadratic.
    auto volume = boxVolume<TypeParam>(this->kHalf, Layout::kUniform);
    addField<TypeParam, float>(*volume, "f", [](double3 const& p) { return float(quadratic(p)); }, TypeParam::maxDepth);
    addField<TypeParam, double>(*volume, "d", [](double3 const& p) { return quadratic(p); }, TypeParam::maxDepth);
    ASSERT_TRUE(analyze<GradientOperator>("f", "g", true, *volume));
    ASSERT_TRUE(analyze<LaplacianOperator>("d", "l", true, *volume));
    forLeafVoxels<TypeParam, float3>(*volume, "g", [](double3 const& p, float3 const& g, int, auto const&, int) {
        EXPECT_LE(length(double3(g) - quadraticGradient(p)), 0.01) << p;
    });
    forLeafVoxels<TypeParam, double>(*volume, "l", [](double3 const&, double l, int, auto const&, int) {
        EXPECT_NEAR(l, kQuadraticLaplacian, 1e-9);
    });
}

TYPED_TEST(AnalyzeTest, leaves_dependent_voxels_as_their_flags_ask)
{
    using namespace OST::TileTree3D;
    auto volume = fieldVolume<TypeParam>(this->kHalf, Layout::kJump, [](double3 const& p) { return std::sin(0.3 * p.x + 0.1 * p.y) * p.z; });
    ASSERT_TRUE(analyze<GradientOperator>("f", "g", true, *volume));
    ASSERT_TRUE(analyze<MeanCurvatureOperator>("f", "k", true, *volume));
    ASSERT_TRUE(analyze<MagnitudeOperator>("f", "m", true, *volume));
    createDofs<TypeParam>("dofs", *volume);
    const auto dofs = volume->template component<DofChannel<TypeParam>>("dofs");
    const auto before = [&]<class T>(char const* name) {
        const std::string bytes = bytesOf<TypeParam, T>(*volume, name);
        auto channel = volume->template extractComponent<PlainChannel<TypeParam, T>>(name);
        setNonDOFValues(0, TypeParam::maxDepth, *treeOf<TypeParam>(*volume), *channel, *dofs, kNonDofCopy);
        volume->putComponent(std::move(channel));
        EXPECT_EQ(bytes, (bytesOf<TypeParam, T>(*volume, name))) << name;
    };
    before.template operator()<float3>("g");
    before.template operator()<float>("k");
    before.template operator()<float>("m");
}

TYPED_TEST(AnalyzeTest, reads_through_voxels_with_children_whatever_they_held)
{
    auto good = fieldVolume<TypeParam>(this->kHalf, Layout::kJump, quadratic);
    auto bad = boxVolume<TypeParam>(this->kHalf, Layout::kJump);
    const auto tree = treeOf<TypeParam>(*bad);
    addChannel<PlainChannel<TypeParam>>(*bad, "f", 0.0f, [&](TileKey const& key, int voxel) {
        const int3 at = OST::TileTree3D::cubeIndex(TypeParam::width, voxel);
        auto const& tile = tree->tile(indexOf(*tree, key));
        const bool leaf = tile.isLeaf(Tree<TypeParam>::Tile::voxelChildIJK(at.x, at.y, at.z));
        return leaf ? float(quadratic(cornerOf<TypeParam>(key, voxel, 1))) : -777.0f;
    });
    ASSERT_TRUE(analyze<GradientOperator>("f", "g", true, *good));
    ASSERT_TRUE(analyze<GradientOperator>("f", "g", true, *bad));
    EXPECT_EQ((bytesOf<TypeParam, float3>(*good, "g")), (bytesOf<TypeParam, float3>(*bad, "g")));
    const auto root = bad->template component<PlainChannel<TypeParam>>("f")->tileData(0);
    EXPECT_GT(std::count(root.begin(), root.end(), -777.0f), 0) << "the property that is read does not change";
}

TYPED_TEST(AnalyzeTest, a_nan_reaches_only_the_stencils_that_touch_it)
{
    const double3 place(-9, 3, 2);
    auto volume = fieldVolume<TypeParam>(20, Layout::kUniform, [&](double3 const& p) { return length(p - place) < 0.1 ? std::nan("") : quadratic(p); });
    ASSERT_TRUE(analyze<GradientOperator>("f", "g", true, *volume));
    ASSERT_TRUE(analyze<MeanCurvatureOperator>("f", "k", true, *volume));
    int gradients = 0, curvatures = 0;
    forLeafVoxels<TypeParam, float3>(*volume, "g", [&](double3 const& p, float3 const& g, int, auto const&, int) {
        if (!std::isnan(g.x) && !std::isnan(g.y) && !std::isnan(g.z)) return;
        EXPECT_LE(length(p - place), 1.01);
        ++gradients;
    });
    forLeafVoxels<TypeParam, float>(*volume, "k", [&](double3 const& p, float k, int, auto const&, int) {
        if (!std::isnan(k)) return;
        EXPECT_LE(length(p - place), 1.5);
        ++curvatures;
    });
    EXPECT_EQ(gradients, 6);
    EXPECT_EQ(curvatures, 19);
}

TYPED_TEST(AnalyzeTest, puts_the_result_where_it_is_asked_to)
{
    auto volume = fieldVolume<TypeParam>(8, Layout::kUniform, quadratic);
    addField<TypeParam, int>(*volume, "taken", [](double3 const&) { return 7; });
    ASSERT_TRUE(analyze<GradientOperator>("f", "taken", true, *volume)) << "a property of another type is replaced";
    EXPECT_TRUE((volume->template hasComponentFromName<PlainChannel<TypeParam, float3>>("taken")));
    EXPECT_TRUE((volume->template hasComponentFromName<PlainChannel<TypeParam>>("f")));
    ASSERT_TRUE(analyze<LaplacianOperator>("f", "elsewhere", false, *volume));
    EXPECT_FALSE(volume->hasComponentFromName("elsewhere"));
    forLeafVoxels<TypeParam, float>(*volume, "f", [](double3 const& p, float l, int, auto const&, int) {
        if (within(p, 6)) { EXPECT_NEAR(l, kQuadraticLaplacian, 1e-3); }
    });
    ASSERT_TRUE(analyze<GradientOperator>("f", "", true, *volume)) << "an empty name means the property itself";
    const auto result = volume->template component<PlainChannel<TypeParam, float3>>("f");
    ASSERT_TRUE(result);
    EXPECT_EQ(length(result->defaultValue()), 0.0f);
    EXPECT_EQ(result->dataElementInitializerType(), OST::TileTree3D::kInitializeLinear);
}

TYPED_TEST(AnalyzeTest, refuses_what_it_cannot_take_and_changes_nothing)
{
    auto volume = fieldVolume<TypeParam>(8, Layout::kUniform, quadratic);
    addField<TypeParam, int>(*volume, "i", [](double3 const&) { return 1; });
    addField<TypeParam, float3>(*volume, "v", [](double3 const& p) { return float3(p); });
    const auto names = volume->componentRange();
    EXPECT_FALSE(analyze<GradientOperator>("missing", "o", true, *volume));
    EXPECT_FALSE(analyze<GradientOperator>("i", "o", true, *volume));
    EXPECT_FALSE(analyze<DivergenceOperator>("f", "o", true, *volume));
    EXPECT_FALSE(analyze<CurlOperator>("f", "o", true, *volume));
    EXPECT_FALSE(analyze<MeanCurvatureOperator>("v", "o", true, *volume));
    EXPECT_FALSE(analyze<ClosestPointOperator>("v", "o", true, *volume));
    EXPECT_FALSE(analyze<MagnitudeOperator>("i", "o", true, *volume));
    EXPECT_FALSE(analyze<GradientOperator>("f", sVoxelTileTree, true, *volume)) << "the tree is no property";
    EXPECT_FALSE(analyze<GradientOperator>(sVoxelTileTree, "o", true, *volume));
    EXPECT_EQ(volume->componentRange(), names);
    Native empty;
    EXPECT_FALSE(analyze<GradientOperator>("f", "o", true, empty));
}

TYPED_TEST(AnalyzeTest, takes_an_empty_tree)
{
    auto volume = nativeVolume<TypeParam>([](Tree<TypeParam>&) {});
    addField<TypeParam, float>(*volume, "f", [](double3 const&) { return 0.0f; });
    EXPECT_TRUE(analyze<MeanCurvatureOperator>("f", "k", true, *volume));
    EXPECT_TRUE((volume->template component<PlainChannel<TypeParam>>("k")->empty()));
}

TYPED_TEST(AnalyzeTest, gives_the_same_bytes_on_any_number_of_threads_with_and_without_a_neighbour_table)
{
    std::string gradient, curvature;
    for (bool table : {false, true})
        for (int threads : kThreadCounts) {
            auto volume = fieldVolume<TypeParam>(this->kHalf, Layout::kJump, [](double3 const& p) { return sphere(p, 13.3); });
            if (table) {
                auto tree = volume->template extractComponent<Tree<TypeParam>>(sVoxelTileTree);
                tree->precomputeTileNeighbors();
                volume->putComponent(std::move(tree));
            }
            parallel::runJob(nullptr, threads, [&] {
                ASSERT_TRUE(analyze<GradientOperator>("f", "g", true, *volume));
                ASSERT_TRUE(analyze<MeanCurvatureOperator>("f", "k", true, *volume));
            });
            const auto g = bytesOf<TypeParam, float3>(*volume, "g"), k = bytesOf<TypeParam, float>(*volume, "k");
            if (gradient.empty()) gradient = g, curvature = k;
            EXPECT_TRUE(g == gradient && k == curvature) << threads << " threads" << (table ? ", table" : "");
        }
}

TYPED_TEST(AnalyzeTest, leaves_the_volume_as_it_was_when_cancelled)
{
    auto volume = fieldVolume<TypeParam>(6, Layout::kJump, quadratic);
    cancelAtEveryPoll([&] { Corvid::Ptr<OST::Component> removed; volume->removeComponent("g", removed); },
                      [&] { analyze<GradientOperator>("f", "g", true, *volume); }, [&] { EXPECT_FALSE(volume->hasComponentFromName("g")); });
}

}  // namespace
}  // namespace tilegrid::test
