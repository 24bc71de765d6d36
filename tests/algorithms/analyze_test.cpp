#include "TilegridOps/algorithms/analyze.h"
#include "TilegridOps/substrate/dependent_values.h"
#include "field_errors.h"
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
    // At the second size values have to be rounded; at the first they are floats.
    for (auto [layout, voxelSize] : {std::pair(Layout::kUniform, 0.5f), {Layout::kUniform, 0.3f}, {Layout::kJump, 0.5f}, {Layout::kJump, 0.3f}}) {
        auto volume = fieldVolume<TypeParam>(this->kHalf, layout, quadratic, voxelSize);
        ASSERT_TRUE(analyze<GradientOperator>("f", "g", true, *volume));
        ASSERT_TRUE(analyze<LaplacianOperator>("f", "l", true, *volume));
        const auto inner = inBox(double(voxelSize) * (this->kInner + 0.1));
        const Errors gradient = fieldErrors<TypeParam, float3>(*volume, "g", inner, [](double3 const& p, float3 const& g) {
            return length(double3(g) - quadraticGradient(p)) / length(quadraticGradient(p));
        });
        const Errors laplacian =
            fieldErrors<TypeParam, float>(*volume, "l", inner, [](double3 const&, float l) { return l / kQuadraticLaplacian - 1; });
        EXPECT_TRUE(areWithin(gradient, 1e-3, 15000));
        EXPECT_TRUE(areWithin(laplacian, 1e-3, 15000));
    }
}

TYPED_TEST(AnalyzeTest, gradient_is_of_second_order_at_a_jump)
{
    // The error of central differences, 2h^2/6 of the third derivative on the coarse side, and no more where stencils meet the jump.
    constexpr double k = 0.11;
    auto volume = fieldVolume<TypeParam>(this->kHalf, Layout::kJump, [](double3 const& p) { return std::sin(k * p.x) * std::cos(k * p.y); });
    ASSERT_TRUE(analyze<GradientOperator>("f", "g", true, *volume));
    const double h = TypeParam::branching;
    const Errors errors = fieldErrors<TypeParam, float3>(*volume, "g", inBox(this->kInner), [](double3 const& p, float3 const& g) {
        return length(double3(g) - double3(k * std::cos(k * p.x) * std::cos(k * p.y), -k * std::sin(k * p.x) * std::sin(k * p.y), 0));
    });
    // Differences of the coarse lattice: h^2/6 k^3 per axis. Interpolating them: h^2/8 times second derivatives, 2 k^3 along three axes.
    EXPECT_TRUE(areWithin(errors, h * h * k * k * k * (std::sqrt(2.0) / 6 + 3.0 / 8 * 2), 15000));
    EXPECT_GT(errors.largest, 0);
}

TYPED_TEST(AnalyzeTest, mean_curvature_of_a_sphere_is_1_by_its_radius)
{
    constexpr double kRadius = 20;
    for (Layout layout : {Layout::kUniform, Layout::kJump}) {
        auto volume = fieldVolume<TypeParam>(30, layout, [](double3 const& p) { return sphere(p, kRadius); });
        ASSERT_TRUE(analyze<MeanCurvatureOperator>("f", "k", true, *volume));
        // Of the level surface through the voxel: the one of radius |p|.
        const Errors errors = fieldErrors<TypeParam, float>(*volume, "k", [](double3 const& p, int) { return std::abs(sphere(p, kRadius)) <= 2; },
                                                            [](double3 const& p, float k) { return k * length(p) - 1; });
        EXPECT_TRUE(areWithin(errors, layout == Layout::kUniform ? 0.01 : 0.05, 10000));
    }
}

TYPED_TEST(AnalyzeTest, closest_point_lies_on_the_sphere)
{
    constexpr double kRadius = 10;
    auto volume = fieldVolume<TypeParam>(30, Layout::kUniform, [](double3 const& p) { return sphere(p, kRadius); }, 0.5f);
    ASSERT_TRUE(analyze<ClosestPointOperator>("f", "c", true, *volume));
    const auto near = [](double3 const& p, int) { return std::abs(sphere(p, kRadius)) <= 2; };
    const Errors off = fieldErrors<TypeParam, float3>(*volume, "c", near, [](double3 const&, float3 const& c) { return sphere(double3(c), kRadius); });
    const Errors turned = fieldErrors<TypeParam, float3>(*volume, "c", near, [](double3 const& p, float3 const& c) {
        return length(double3(c) - (kRadius / length(p)) * p);
    });
    EXPECT_TRUE(areWithin(off, 0.01 * 0.5, 10000));
    EXPECT_TRUE(areWithin(turned, 0.02 * 0.5, 10000));
}

TYPED_TEST(AnalyzeTest, closest_point_of_a_flat_field_is_the_voxel_itself)
{
    auto volume = fieldVolume<TypeParam>(8, Layout::kUniform, [](double3 const&) { return 3.0; });
    ASSERT_TRUE(analyze<ClosestPointOperator>("f", "c", true, *volume));
    const Errors moved = fieldErrors<TypeParam, float3>(*volume, "c", inBox(8), [](double3 const& p, float3 const& c) { return length(double3(c) - p); });
    EXPECT_TRUE(areWithin(moved, 0, 16 * 16 * 16));
}

TYPED_TEST(AnalyzeTest, divergence_and_curl_are_exact_for_quadratic_fields)
{
    for (Layout layout : {Layout::kUniform, Layout::kJump}) {
        auto volume = boxVolume<TypeParam>(this->kHalf, layout);
        // v = (x y, y z, z x): div = y + z + x, curl = (-y, -z, -x).
        addField<TypeParam, float3>(*volume, "v", [](double3 const& p) { return float3(double3(p.x * p.y, p.y * p.z, p.z * p.x)); });
        ASSERT_TRUE(analyze<DivergenceOperator>("v", "div", true, *volume));
        ASSERT_TRUE(analyze<CurlOperator>("v", "curl", true, *volume));
        const auto inner = inBox(this->kInner);
        const Errors divergence = fieldErrors<TypeParam, float>(*volume, "div", inner, [](double3 const& p, float d) { return d - (p.x + p.y + p.z); });
        const Errors curl = fieldErrors<TypeParam, float3>(*volume, "curl", inner, [](double3 const& p, float3 const& c) {
            return length(double3(c) + double3(p.y, p.z, p.x));
        });
        EXPECT_TRUE(areWithin(divergence, 1e-3, 15000));
        EXPECT_TRUE(areWithin(curl, 1e-3, 15000));
    }
}

TYPED_TEST(AnalyzeTest, curl_of_a_gradient_vanishes)
{
    auto volume = fieldVolume<TypeParam>(this->kHalf, Layout::kUniform, [](double3 const& p) { return std::sin(0.1 * p.x) * std::cos(0.13 * p.y) * p.z; });
    ASSERT_TRUE(analyze<GradientOperator>("f", "g", true, *volume));
    ASSERT_TRUE(analyze<CurlOperator>("g", "c", true, *volume));
    const Errors errors = fieldErrors<TypeParam, float3>(*volume, "c", inBox(this->kInner), [](double3 const&, float3 const& c) { return length(double3(c)); });
    EXPECT_TRUE(areWithin(errors, 1e-3, 33 * 33 * 33));
}

TYPED_TEST(AnalyzeTest, gradient_of_a_vector_has_a_row_for_each_component)
{
    auto volume = boxVolume<TypeParam>(this->kHalf, Layout::kJump);
    addField<TypeParam, float3>(*volume, "v", [](double3 const& p) { return float3(double3(p.x * p.y, 2 * p.z, 5 * p.x - p.y * p.y)); });
    ASSERT_TRUE(analyze<GradientOperator>("v", "g", true, *volume));
    Errors errors;
    forLeafVoxels<TypeParam, float3x3>(*volume, "g", [&](double3 const& p, float3x3 const& g, int, auto const&, int) {
        if (!within(p, this->kInner)) return;
        const double exact[3][3] = {{p.y, p.x, 0}, {0, 0, 2}, {5, -2 * p.y, 0}};
        for (int row = 0; row < 3; ++row)
            for (int column = 0; column < 3; ++column) errors.add(g(row, column) - exact[row][column]);
    });
    EXPECT_TRUE(areWithin(errors, 1e-3, 9 * 15000));
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
        Errors errors;
        for (int d = TypeParam::maxDepth - 2; d <= TypeParam::maxDepth; ++d)
            for (OST::int64 n = 0; n < tree->tileCount(d); ++n)
                for (int v = 0; v < TypeParam::voxelCount; ++v) {
                    const double exact = twice->tileData(n, d)(v);
                    // Rounding of sums of values up to 1500 at coarse voxels, less at fine ones; curvature has gradients near 1.
                    errors.add((single->tileData(n, d)(v) - exact) / (1 + std::abs(exact)));
                }
        EXPECT_TRUE(areWithin(errors, 2e-4, 50000)) << kind;
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
    constexpr int kAll = 17 * 17 * 17;
    const auto inner = inBox(8);
    const Errors lengths = fieldErrors<TypeParam, float>(*volume, "vm", inner, [](double3 const& p, float m) {
        return (m - length(p)) / std::max(length(p), 1e-9);
    });
    const Errors directions = fieldErrors<TypeParam, float3>(*volume, "vn", inner, [](double3 const& p, float3 const& n) {
        return length(double3(n) - (1 / std::max(length(p), 1e-9)) * p);
    });
    const Errors sizes = fieldErrors<TypeParam, float>(*volume, "fm", inner, [](double3 const& p, float m) { return m - std::abs(p.x); });
    const Errors signs = fieldErrors<TypeParam, float>(*volume, "fn", inner, [](double3 const& p, float n) { return n - (p.x > 0 ? 1 : p.x < 0 ? -1 : 0); });
    EXPECT_TRUE(areWithin(lengths, 1e-6, kAll));
    EXPECT_TRUE(areWithin(directions, 1e-6, kAll));
    EXPECT_TRUE(areWithin(sizes, 0, kAll));
    EXPECT_TRUE(areWithin(signs, 0, kAll));
}

TYPED_TEST(AnalyzeTest, is_one_sided_where_the_data_ends)
{
    // Only the finest depth has data, so the box ends in nothing; three points are exact for a quadratic.
    auto volume = boxVolume<TypeParam>(this->kHalf, Layout::kUniform);
    addField<TypeParam, float>(*volume, "f", [](double3 const& p) { return float(quadratic(p)); }, TypeParam::maxDepth);
    addField<TypeParam, double>(*volume, "d", [](double3 const& p) { return quadratic(p); }, TypeParam::maxDepth);
    ASSERT_TRUE(analyze<GradientOperator>("f", "g", true, *volume));
    ASSERT_TRUE(analyze<LaplacianOperator>("d", "l", true, *volume));
    const auto everywhere = [](double3 const&, int) { return true; };
    const Errors gradient = fieldErrors<TypeParam, float3>(*volume, "g", everywhere, [](double3 const& p, float3 const& g) {
        return length(double3(g) - quadraticGradient(p)) / length(quadraticGradient(p));
    });
    const Errors laplacian =
        fieldErrors<TypeParam, double>(*volume, "l", everywhere, [](double3 const&, double l) { return l - kQuadraticLaplacian; });
    EXPECT_TRUE(areWithin(gradient, 1e-3, 48 * 48 * 48));
    EXPECT_TRUE(areWithin(laplacian, 1e-9, 48 * 48 * 48));
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
    const Errors laplacian = fieldErrors<TypeParam, float>(*volume, "f", inBox(6), [](double3 const&, float l) { return l - kQuadraticLaplacian; });
    EXPECT_TRUE(areWithin(laplacian, 1e-3, 13 * 13 * 13));
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

TYPED_TEST(AnalyzeTest, every_operator_gives_the_same_bytes_on_any_number_of_threads_with_and_without_a_neighbour_table)
{
    std::vector<std::string> first;
    for (bool table : {false, true})
        for (int threads : kThreadCounts) {
            auto volume = fieldVolume<TypeParam>(this->kHalf, Layout::kJump, [](double3 const& p) { return sphere(p, 13.3); });
            addField<TypeParam, float3>(*volume, "v", [](double3 const& p) {
                return float3(double3(std::sin(0.3 * p.x) * p.y, std::cos(0.2 * p.z), 0.1 * p.x * p.z));
            });
            if (table) {
                auto tree = volume->template extractComponent<Tree<TypeParam>>(sVoxelTileTree);
                tree->precomputeTileNeighbors();
                volume->putComponent(std::move(tree));
            }
            std::vector<std::string> bytes;
            const auto run = [&]<class Operator, class Result>(char const* of) {
                parallel::runJob(nullptr, threads, [&] { ASSERT_TRUE(analyze<Operator>(of, "o", true, *volume)); });
                bytes.push_back(bytesOf<TypeParam, Result>(*volume, "o"));
                EXPECT_GT(bytes.back().size(), 100000u);
            };
            run.template operator()<GradientOperator, float3>("f");
            run.template operator()<GradientOperator, float3x3>("v");
            run.template operator()<MeanCurvatureOperator, float>("f");
            run.template operator()<LaplacianOperator, float>("f");
            run.template operator()<ClosestPointOperator, float3>("f");
            run.template operator()<DivergenceOperator, float>("v");
            run.template operator()<CurlOperator, float3>("v");
            run.template operator()<MagnitudeOperator, float>("v");
            run.template operator()<NormalizeOperator, float3>("v");
            if (first.empty()) first = bytes;
            for (std::size_t n = 0; n < bytes.size(); ++n) EXPECT_TRUE(bytes[n] == first[n]) << n << ": " << threads << " threads" << (table ? ", table" : "");
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
