#include "benchmarks/support/band_measure.h"
#include "benchmarks/support/bench.h"
#include "benchmarks/support/level_set_peer.h"
#include "benchmarks/support/loads.h"

#include "TilegridOps/algorithms/level_set_edit.h"
#include "TilegridOps/algorithms/redistance.h"
#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/level_set_from_mesh.h"
#include "io/mesh.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <iomanip>
#include <iostream>

/// Redistancing and moving level sets beside the peer's ways, per voxel of the band (half width 3), and what either makes of the
/// distances. `--accuracy` prints the table of errors instead of times.

namespace {

using namespace bench;
namespace LevelSet = VolumeGL::TileTree3D::LevelSet;
using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelSignedDistance;
using Ostara::Geometry::sVoxelTileTree;
using Way = LevelSetPeer::Way;

/// A distance in finest voxels of a place in finest voxels.
using Field = std::function<double(double, double, double)>;

/// Where a voxel of the finest depth is kept.
struct Slot {
    long long tile;
    int voxel;
};

/// One level set for both sides: ours with all its depths, and its band.
template <class Tr> struct Subject {
    Corvid::MutablePtr<OST::Object> volume;
    Corvid::MutablePtr<DofChannel<Tr>> dofs;
    std::vector<int3> band;
    std::vector<float> values;
    std::vector<Slot> slots;
    std::vector<bool> hanging;

    std::shared_ptr<LevelSetPeer> peer() const { return std::make_shared<LevelSetPeer>(band, values); }
};

template <class Tr> Corvid::Ptr<Container<Tr>> treeIn(OST::Object const& volume) { return volume.component<Container<Tr>>(sVoxelTileTree); }
template <class Tr> Corvid::Ptr<FloatChannel<Tr>> distanceIn(OST::Object const& volume) { return volume.component<FloatChannel<Tr>>(sVoxelSignedDistance); }

/// Flags, and the band as far as the tiles hold it; voxel size 1.
template <class Tr> void complete(Subject<Tr>& subject)
{
    const auto tree = treeIn<Tr>(*subject.volume);
    subject.dofs = Corvid::makeMutable<DofChannel<Tr>>("dofs", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth);
    subject.dofs->updateTilesAdded(*tree);
    computeDofs<Tr>(*tree, *subject.dofs);
    const auto values = distanceIn<Tr>(*subject.volume);
    for (long long n = 0; n < tree->tileCount(Tr::maxDepth); ++n)
        for (int v = 0; v < Tr::voxelCount; ++v) {
            const float value = values->tileData(n, Tr::maxDepth)(v);
            if (std::fabs(value) >= kBand) continue;
            subject.band.push_back(tree->tile(n, Tr::maxDepth).tijk() + cubeIndex(Tr::width, v));
            subject.values.push_back(value);
            subject.slots.push_back({n, v});
            subject.hanging.push_back(subject.dofs->tileData(n, Tr::maxDepth)(v) & kDofHanging);
        }
}

/// The finest tiles with a voxel of the band, and exact values at every depth.
template <class Tr> Subject<Tr> fromField(Field const& field)
{
    using Tile = typename Container<Tr>::Tile;
    Subject<Tr> subject;
    subject.volume = Command::createVoxelOST<Tr>(sVoxelTileTree, sVoxelComp, 1.0f, kCorner);
    auto tree = subject.volume->template extractComponent<Container<Tr>>(sVoxelTileTree);
    auto topology = subject.volume->template extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    const auto wants = [&](Tile const& tile, int3 const& cell) {
        const int3 corner = tile.childTIJK(cell);
        const double width = tile.voxelWidth(), half = 0.5 * width;
        if (std::fabs(field(corner.x + half, corner.y + half, corner.z + half)) > kBand + 0.8661 * width) return false;
        if (tile.depth() < Tr::maxDepth - 1) return true;
        for (int v = 0; v < Tr::voxelCount; ++v) {
            const int3 p = corner + cubeIndex(Tr::width, v);
            if (std::fabs(field(p.x, p.y, p.z)) < kBand) return true;
        }
        return false;
    };
    tree->template refine<decltype(wants), 0>(wants, TreeIndex(), 0, Tr::maxDepth, nullptr);
    topology->update(*tree);
    const float outside = kBand;
    auto values = Corvid::makeMutable<FloatChannel<Tr>>(sVoxelSignedDistance, &outside, kInitializeLinear, false, true, 0, Tr::maxDepth);
    values->updateTilesAdded(*tree);
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (long long n = 0; n < tree->tileCount(depth); ++n)
            for (int v = 0; v < Tr::voxelCount; ++v) {
                const double w = Tr::voxelDataWidth(depth);
                const int3 corner = tree->tile(n, depth).tijk(), at = cubeIndex(Tr::width, v);
                values->tileData(n, depth)(v) = float(field(corner.x + at.x * w, corner.y + at.y * w, corner.z + at.z * w));
            }
    tree->precomputeTileNeighbors();
    subject.volume->putComponent(std::move(values));
    subject.volume->putComponent(std::move(topology));
    subject.volume->putComponent(std::move(tree));
    complete(subject);
    return subject;
}

/// The bunny with that many voxels across, its lengths made voxels.
template <class Tr> Subject<Tr> bunny(float across)
{
    const Corvid::RuntimeServices services(nullptr, [](tilegrid::Severity, Corvid::StringView) {});
    auto mesh = tilegrid::io::readMesh(TILEGRID_BENCH_DATA "/bunny.obj", 0, services);
    Ostara::Math::bbox<float3, float> box;
    for (float3 const& p : mesh.vertices) box.add(p);
    const float scale = across / std::max({box.max.x - box.min.x, box.max.y - box.min.y, box.max.z - box.min.z});
    for (float3& p : mesh.vertices) p = scale * p;
    tilegrid::io::LevelSetOptions options;
    options.voxelSize = 1;
    options.structure = Tr::branching == 2 ? tilegrid::io::Structure::kBinary : tilegrid::io::Structure::kQuinary;
    auto made = tilegrid::io::levelSetFromMesh(mesh, options, services);
    auto host = Corvid::toMutable(made);
    Subject<Tr> subject;
    subject.volume = Ostara::Geometry::move_object_to_ost_volume(*host);
    complete(subject);
    return subject;
}

template <class Tr> std::uint64_t redistance(Subject<Tr> const& subject, FloatChannel<Tr>& values)
{
    const auto tree = treeIn<Tr>(*subject.volume);
    const auto topology = subject.volume->template component<VoxelTopology<Tr>>(sVoxelComp);
    LevelSet::levelSetRedistance<Tr>(*tree, *topology, values, true, true, true, 0, Tr::maxDepth, nullptr, nullptr, 0.01f, FLT_MAX, FLT_MAX, 10,
                                     10, true, false, subject.dofs.get(), "bench", LevelSet::RedistancingScheme::kClosestPoint);
    std::uint32_t bits;
    const float value = values.tileData(tree->tileCount(Tr::maxDepth) / 2, Tr::maxDepth)(0);
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

template <class Tr> void edit(OST::Object& volume, float offset, float bandwidth)
{
    const Corvid::RuntimeServices services;
    const CoreGL::CorvidLogger logger(services);
    if (offset != 0)
        LevelSet::offset<Tr>(offset, true, volume, sVoxelTileTree, sVoxelComp, sVoxelSignedDistance, "", nullptr,
                             Geometry::Volume::SamplerInterpretation::kRampForm, 0, logger, "bench.");
    else
        LevelSet::resize(bandwidth, volume, sVoxelTileTree, sVoxelComp, sVoxelSignedDistance, logger);
}

template <class Tr> void addTimes(std::string const& load, Subject<Tr> made)
{
    const auto subject = std::make_shared<Subject<Tr>>(std::move(made));
    const auto peer = subject->peer();
    const std::int64_t voxels = std::int64_t(subject->band.size());
    const std::string at = (Tr::branching == 2 ? "w4/" : "w5/") + load;
    const auto values = std::make_shared<FloatChannel<Tr>>(*distanceIn<Tr>(*subject->volume));
    for (int threads : {1, 2}) {
        // In place: what was made distances once is work like any other.
        add("redistance_rebuild_" + at, "ours", threads, voxels, [=] { return redistance(*subject, *values); });
        add("redistance_rebuild_" + at, "peer", threads, voxels, [=] { return peer->run(Way::kRebuild); });
        add("redistance_sweeping_" + at, "ours", threads, voxels, [=] { return redistance(*subject, *values); });
        add("redistance_sweeping_" + at, "peer", threads, voxels, [=] { return peer->run(Way::kFastSweeping); });
        add("redistance_weno5x3_" + at, "ours", threads, voxels, [=] { return redistance(*subject, *values); });
        add("redistance_weno5x3_" + at, "peer", threads, voxels, [=] { return peer->run(Way::kNormalize); });
        const auto edited = [=](float offset, float bandwidth) {
            OST::Object copy = *subject->volume;
            edit<Tr>(copy, offset, bandwidth);
            return std::uint64_t(treeIn<Tr>(copy)->tileCount(-1));
        };
        add("offset_" + at, "ours", threads, voxels, [=] { return edited(1.5f, 0); });
        add("offset_" + at, "peer", threads, voxels, [=] { return peer->run(Way::kOffset, 1.5f); });
        add("resize_" + at, "ours", threads, voxels, [=] { return edited(0, 3); });
    }
}

/// The values of a channel at the voxels of the band.
template <class Tr> std::vector<float> bandOf(FloatChannel<Tr> const& values, Subject<Tr> const& subject)
{
    std::vector<float> all;
    for (Slot const& slot : subject.slots) all.push_back(values.tileData(slot.tile, Tr::maxDepth)(slot.voxel));
    return all;
}

struct Row {
    BandErrors once, often;
    void print(std::string const& what) const
    {
        std::cout << "| " << what << " | " << once.mean << " | " << once.largest << " | " << once.nearMean << " | " << once.nearLargest << " | "
                  << 100 * once.off << " % | " << once.driftMean << ", " << once.driftLargest << " | " << often.driftMean << ", "
                  << often.driftLargest << " | " << once.volume << ", " << often.volume << " | " << often.largest << " | " << once.missing
                  << ", " << often.missing << " | " << once.lost << ", " << often.lost << " | " << 100 * once.hanging << " %, " << once.hangingLargest
                  << " |" << std::endl;
    }
};
constexpr int kOften = 20;
constexpr float kFactor = 1.7f;

template <class Tr> Row ours(Subject<Tr> const& subject, BandMeasure const& measure)
{
    auto values = Corvid::makeMutable<FloatChannel<Tr>>(*distanceIn<Tr>(*subject.volume));
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (long long n = 0; n < treeIn<Tr>(*subject.volume)->tileCount(depth); ++n)
            for (float& value : values->tileData(n, depth)) value *= kFactor;
    Row row;
    for (int call = 1; call <= kOften; ++call) {
        redistance(subject, *values);
        if (call == 1) row.once = measure.of(bandOf<Tr>(*values, subject), subject.hanging);
    }
    row.often = measure.of(bandOf<Tr>(*values, subject), subject.hanging);
    return row;
}

Row peers(Way way, std::vector<int3> const& band, std::vector<float> values, BandMeasure const& measure)
{
    for (float& value : values) value *= kFactor;
    LevelSetPeer peer(band, values);
    Row row;
    for (int call = 1; call <= kOften; ++call) {
        peer.run(way);
        peer.keep();
        if (call == 1) row.once = measure.of(peer.values(band));
    }
    row.often = measure.of(peer.values(band));
    return row;
}

/// After one call and after twenty, on the field times 1.7. The exact distances are those that the subject came with.
template <class Tr> void accuracy(std::string const& name, Subject<Tr> const& subject)
{
    const BandMeasure measure(subject.band, subject.values);
    ours<Tr>(subject, measure).print(name + ", ours, W " + std::to_string(Tr::width));
    if (Tr::branching != 2) return;
    const std::pair<Way, std::string> ways[] = {{Way::kRebuild, "levelSetRebuild"},
                                                {Way::kFastSweeping, "FastSweeping"},
                                                {Way::kNormalize, "3 x WENO5"},
                                                {Way::kConverge, std::to_string(LevelSetPeer::kConverged) + " x WENO5"}};
    for (auto const& [way, text] : ways)
        peers(way, subject.band, subject.values, measure).print(name + ", " + text);
}

template <class Make> void accuracyOfBoth(std::string const& name, Make const& make)
{
    accuracy<BinaryTraits>(name, make(BinaryTraits()));
    accuracy<QuinaryTraits>(name, make(QuinaryTraits()));
}

void printAccuracy()
{
    std::cout << std::setprecision(2)
              << "| field * 1.7, then | mean, band | largest | mean, near | largest | off by > 0.1 | drift: mean, largest | after 20 calls "
                 "| volume after 1, 20 | largest after 20 | not in band after 1, 20 | surface lost | hanging: share, largest |\n"
                 "|---|---|---|---|---|---|---|---|---|---|---|---|---|\n";
    for (int n : {64, 128, 256}) {
        const double radius = 0.4 * n;
        const Field sphere = [radius](double x, double y, double z) { return std::sqrt((x - 0.31) * (x - 0.31) + (y + 0.17) * (y + 0.17) + (z - 0.23) * (z - 0.23)) - radius; };
        accuracyOfBoth("sphere " + std::to_string(n), [&sphere](auto traits) { return fromField<decltype(traits)>(sphere); });
    }
    const Field torus = [](double x, double y, double z) { return std::hypot(std::hypot(x - 0.31, y + 0.17) - 40, z - 0.23) - 15; };
    accuracyOfBoth("torus 40/15", [&torus](auto traits) { return fromField<decltype(traits)>(torus); });
    // What is made from triangles has exact distances to them.
    accuracyOfBoth("bunny 256", [](auto traits) { return bunny<decltype(traits)>(256); });
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc > 1 && std::strcmp(argv[1], "--accuracy") == 0) {
        printAccuracy();
        return 0;
    }
    const Field sphere = [](double x, double y, double z) { return std::sqrt((x - 0.31) * (x - 0.31) + (y + 0.17) * (y + 0.17) + (z - 0.23) * (z - 0.23)) - 256; };
    addTimes<BinaryTraits>("sphere512", fromField<BinaryTraits>(sphere));
    addTimes<QuinaryTraits>("sphere512", fromField<QuinaryTraits>(sphere));
    addTimes<BinaryTraits>("bunny", bunny<BinaryTraits>(256));
    addTimes<QuinaryTraits>("bunny", bunny<QuinaryTraits>(256));
    return runAll(argc, argv, "bench_redistance");
}
