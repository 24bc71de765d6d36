// Lattices that lie askew, as other programs write them: made with OpenVDB here, read with our reader.
#include "io/check.h"
#include "io/error.h"
#include "io/vdb.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/structures.h"

#include <openvdb/openvdb.h>
#include <openvdb/tools/LevelSetSphere.h>

#include <cmath>

namespace tilegrid::test {
namespace {

using io::InputError;
using io::VdbOptions;
using Ostara::Geometry::sVoxelSignedDistance;
using Ostara::Math::double3;
using namespace OST::TileTree3D;

constexpr double kRadius = 20;  // in voxels of the file

void writeGrids(std::string const& path, std::vector<openvdb::GridBase::Ptr> const& grids)
{
    openvdb::initialize();
    openvdb::io::File file(path);
    file.write(openvdb::GridCPtrVec(grids.begin(), grids.end()));
    file.close();
}

/// A ball around the origin of index space, with distances in units of `unit` a voxel.
openvdb::FloatGrid::Ptr ball(double unit, openvdb::math::Transform::Ptr const& transform)
{
    auto grid = openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(float(kRadius * unit), openvdb::Vec3f(0), float(unit), 3.0f);
    grid->setTransform(transform);
    grid->setName("ball");
    return grid;
}

/// Calls `visit(place, value)` for the voxels without children of a property.
template <class Tr, class Visit> void forLeafVoxels(Ostara::Object const& volume, Corvid::String const& name, Visit const& visit)
{
    const auto tree = treeOf<Tr>(volume);
    const auto values = channelOf<Tr>(volume, name);
    for (OST::int64 n = 0; n < tree->tileCount(Tr::maxDepth); ++n)
        for (int v = 0; v < Tr::voxelCount; ++v) {
            const double3 at(tree->tile(n, Tr::maxDepth).tijk() + cubeIndex(Tr::width, v));
            visit(double(tree->voxelSize()) * at, double(values->tileData(n, Tr::maxDepth)(v)));
        }
}

/// From the surface of a spheroid with semi-axes a, a and b along z, negative inside, for places near it. The foot of a place p lies at
/// p_i e_i^2 / (t + e_i^2) for the largest root t of the spheroid's equation there, found by halving.
double distanceToSpheroid(double a, double b, double3 const& p)
{
    const double r = std::hypot(p.x, p.y), z = std::abs(p.z);
    const auto excess = [&](double t) { return std::pow(a * r / (t + a * a), 2) + std::pow(b * z / (t + b * b), 2) - 1; };
    double low = -std::min(a, b) * std::min(a, b), high = std::hypot(a * r, b * z);
    for (int step = 0; step < 200; ++step) (excess(0.5 * (low + high)) > 0 ? low : high) = 0.5 * (low + high);
    const double t = 0.5 * (low + high), distance = std::hypot(r - a * a * r / (t + a * a), z - b * b * z / (t + b * b));
    return std::pow(r / a, 2) + std::pow(z / b, 2) < 1 ? -distance : distance;
}

template <class Tr> class AskewVdb : public ::testing::Test {
public:
    static VdbOptions options(float voxelSize = 0)
    {
        VdbOptions options;
        options.structure = structureOf<Tr>();
        options.resample = true;
        options.voxelSize = voxelSize;
        return options;
    }
    Corvid::Ptr<Ostara::Object> read(std::vector<openvdb::GridBase::Ptr> const& grids, VdbOptions const& how)
    {
        writeGrids(folder.file("a.vdb"), grids);
        const Corvid::RuntimeServices services(nullptr, [this](Severity severity, Corvid::StringView text) {
            if (severity == Severity::kWarning) warnings.push_back(std::string(text));
        });
        const auto volumes = io::readVdb(folder.file("a.vdb"), how, services);
        EXPECT_EQ(volumes.size(), 1u);
        return volumes.front().volume;
    }
    TestFolder folder;
    std::vector<std::string> warnings;
};
TYPED_TEST_SUITE(AskewVdb, Structures, StructureNames);

TYPED_TEST(AskewVdb, turned_ball_keeps_its_distances)
{
    constexpr double h = 0.1;
    auto turned = openvdb::math::Transform::createLinearTransform(h);
    turned->postRotate(0.3, openvdb::math::Z_AXIS);
    turned->postRotate(-0.7, openvdb::math::X_AXIS);
    turned->postTranslate(openvdb::Vec3d(1.234, -0.77, 0.5));
    const auto volume = this->read({ball(h, turned)}, this->options());
    EXPECT_FLOAT_EQ(treeOf<TypeParam>(*volume)->voxelSize(), float(h));
    // Linear between samples: an eighth of the squared spacing for each axis times the second derivatives of the distance, which
    // are 1/r in two directions and add up to 2/r whatever the axes. A thousandth of a voxel for floats.
    const double tolerance = h * h / 8 * 2 / (h * (kRadius - 3)) + 1e-3 * h;
    int seen = 0;
    forLeafVoxels<TypeParam>(*volume, sVoxelSignedDistance, [&](double3 const& p, double value) {
        const double exact = length(p - double3(1.234, -0.77, 0.5)) - h * kRadius;
        if (std::abs(exact) > 1.5 * h) return;
        ++seen;
        EXPECT_NEAR(value, exact, tolerance);
    });
    EXPECT_GT(seen, 10000);
    EXPECT_EQ(io::faultsOf(io::checkVolume(*volume)), "");
    EXPECT_TRUE(this->warnings.empty());
}

TYPED_TEST(AskewVdb, ball_that_is_stretched_becomes_true_distances_from_a_spheroid)
{
    constexpr double h = 0.1;
    auto uneven = openvdb::math::Transform::createLinearTransform(h);
    uneven->postScale(openvdb::Vec3d(1, 1, 2));
    const auto volume = this->read({ball(h, uneven)}, this->options());
    EXPECT_FLOAT_EQ(treeOf<TypeParam>(*volume)->voxelSize(), float(h)) << "the shortest edge";
    // Linear in the file's voxels, as above, on an edge of 2 h at most; then distances, made within 0.02 voxels.
    const double tolerance = 2 * h / 8 * 2 / (kRadius - 3) + 0.02 * h;
    int seen = 0;
    forLeafVoxels<TypeParam>(*volume, sVoxelSignedDistance, [&](double3 const& p, double value) {
        const double exact = distanceToSpheroid(h * kRadius, 2 * h * kRadius, p);
        if (!(std::abs(exact) <= 1.5 * h)) return;
        ++seen;
        EXPECT_NEAR(value, exact, tolerance);
    });
    EXPECT_GT(seen, 10000);
    EXPECT_EQ(io::faultsOf(io::checkVolume(*volume)), "");
}

TYPED_TEST(AskewVdb, linear_density_goes_on_where_it_is_shifted_sheared_or_given_other_voxels)
{
    const auto shifted = openvdb::math::Transform::createLinearTransform(0.5);
    shifted->postTranslate(openvdb::Vec3d(0.2, -0.13, 0));
    const auto sheared = openvdb::math::Transform::createLinearTransform(0.5);
    sheared->postShear(0.4, openvdb::math::X_AXIS, openvdb::math::Y_AXIS);
    const auto mirrored = openvdb::math::Transform::createLinearTransform(0.5);
    mirrored->postScale(openvdb::Vec3d(-1, 1, 1));
    const auto plain = openvdb::math::Transform::createLinearTransform(0.5);
    for (auto const& [transform, voxelSize] : {std::pair(shifted, 0.0f), {sheared, 0.0f}, {mirrored, 0.4f}, {plain, 0.3f}}) {
        auto grid = openvdb::FloatGrid::create(0.0f);
        grid->setTransform(transform);
        grid->setName("density");
        const auto linear = [](double3 const& p) { return 2 * p.x - p.y + 0.5 * p.z + 3; };
        constexpr int kLast = 31;
        for (int n = 0; n < (kLast + 1) * (kLast + 1) * (kLast + 1); ++n) {
            const openvdb::Coord at(n % (kLast + 1), n / (kLast + 1) % (kLast + 1), n / (kLast + 1) / (kLast + 1));
            const auto p = grid->indexToWorld(at);
            grid->tree().setValueOn(at, float(linear({p[0], p[1], p[2]})));
        }
        const auto volume = this->read({grid}, this->options(voxelSize));
        if (voxelSize > 0) {
            EXPECT_EQ(treeOf<TypeParam>(*volume)->voxelSize(), voxelSize);
        }
        int inside = 0;
        forLeafVoxels<TypeParam>(*volume, "density", [&](double3 const& p, double value) {
            const auto index = grid->worldToIndex({p.x, p.y, p.z});
            for (int axis = 0; axis < 3; ++axis)
                if (!(index[axis] >= 0.01 && index[axis] <= kLast - 0.01)) return;
            ++inside;
            // Some float roundings of values up to 60 and of places.
            EXPECT_NEAR(value, linear(p), 1e-4);
        });
        EXPECT_GT(inside, 10000);
    }
}

TYPED_TEST(AskewVdb, whole_numbers_are_left_out_with_a_warning)
{
    auto turned = openvdb::math::Transform::createLinearTransform(0.5);
    turned->postRotate(0.3, openvdb::math::Z_AXIS);
    auto ids = openvdb::Int32Grid::create(0);
    ids->setTransform(turned);
    ids->setName("id");
    ids->tree().setValueOn({1, 2, 3}, 7);
    const auto volume = this->read({ball(0.5, turned), ids}, this->options());
    EXPECT_FALSE(volume->native()->hasComponentFromName("id"));
    ASSERT_EQ(this->warnings.size(), 1u);
    EXPECT_NE(this->warnings[0].find("'id'"), std::string::npos);
}

TYPED_TEST(AskewVdb, same_bytes_for_any_number_of_threads)
{
    auto turned = openvdb::math::Transform::createLinearTransform(0.1);
    turned->postScale(openvdb::Vec3d(1, 1.5, 1));
    turned->postRotate(0.3, openvdb::math::Z_AXIS);
    Corvid::Ptr<Ostara::Object> first;
    for (int threads : kThreadCounts) {
        Corvid::Ptr<Ostara::Object> volume;
        parallel::runJob(nullptr, threads, [&] { volume = this->read({ball(0.1, turned)}, this->options()); });
        if (!first) first = volume;
        for (int depth = 0; depth <= TypeParam::maxDepth; ++depth)
            EXPECT_EQ((differencesAt<TypeParam>(depth, *first, *volume)), "") << threads << " threads";
    }
}

TYPED_TEST(AskewVdb, is_refused_with_the_remedy_unless_it_is_asked_for_and_beyond_the_limit)
{
    auto turned = openvdb::math::Transform::createLinearTransform(0.1);
    turned->postRotate(0.3, openvdb::math::Z_AXIS);
    const auto complaint = [&](VdbOptions const& options) { return errorOf<InputError>([&] { this->read({ball(0.1, turned)}, options); }); };
    VdbOptions none;
    EXPECT_NE(complaint(none).find("resample=yes, or voxel="), std::string::npos) << complaint(none);
    // The result takes several times the memory of what is in the file: between the limits for the one and the other.
    bool refused = false;
    VdbOptions fine = this->options(0.06f);
    for (fine.maxBytes = 1 << 16; fine.maxBytes < 1 << 26 && !refused; fine.maxBytes *= 2)
        refused = complaint(fine).find("cannot be resampled: The result needs more memory than allowed.") != std::string::npos;
    EXPECT_TRUE(refused);
}

}  // namespace
}  // namespace tilegrid::test
