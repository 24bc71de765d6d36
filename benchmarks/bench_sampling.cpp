#include "TilegridOps/sampling/voxel_sampler_cubic.h"
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "TilegridOps/substrate/halo.h"
#include "benchmarks/support/bench.h"
#include "benchmarks/support/loads.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>

/// Trilinear samples at positions whose eight voxels are all active, with the peer's values in our channel; and cubic ones, of
/// the peer's quadratic sampler on the other side, where they take the full stencil.

namespace {

using namespace bench;

constexpr std::size_t kMostQueries = 1'000'000;
using Positions = std::shared_ptr<std::vector<float3>>;

template <class Tr> struct Volume {
    template <int N> using ChannelOf = Channel<Tr, float, N, 0>;
    using Sampler = VoxelSamplerLinear<Tr, float, 1, float, float3, 0, 0, 1, 0>;

    explicit Volume(Load const& load) : tree(treeOf<Tr>(load)), topology("voxels", kCorner)
    {
        constexpr int D = Tr::maxDepth, W = Tr::width;
        tree->setVoxelSize(load.peer->voxelSize());
        const float outside = kBand;
        channel = std::make_unique<ChannelOf<W>>("distance", &outside, kInitializeNone, false, true, D, D);
        channel->updateTilesAdded(*tree);
        for (OST::int64 n = 0; n < tree->tileCount(D); ++n) {
            std::vector<int3> places;
            for (int v = 0; v < Tr::voxelCount; ++v) places.push_back(tree->tile(n, D).tijk() + cubeIndex(W, v));
            const auto values = load.peer->values(places);
            std::copy(values.begin(), values.end(), channel->tileData(n, D).begin());
        }
        halo = std::make_unique<ChannelOf<W + 1>>("halo", &outside, kInitializeNone, false, true, D, D);
        halo->updateTilesAdded(*tree);
        computeHalo<Tr, float, 0, 0, 1, 0>(*channel, std::as_const(*tree), *halo, -1, -1);
    }
    CubicSampler<Tr, float> cubic(CubicMode mode) const
    {
        return {*tree, topology, channel.get(), mode, /*clampOutput*/ true, JumpPolicy::kTrilinearAtJump, nullptr, 0, 0};
    }
    Sampler source() const { return {*tree, topology, channel.get()}; }
    Sampler compressed() const { return {*tree, topology, halo.get()}; }

    std::shared_ptr<Container<Tr>> tree;
    VoxelTopology<Tr> topology;
    std::unique_ptr<ChannelOf<Tr::width>> channel;
    std::unique_ptr<ChannelOf<Tr::width + 1>> halo;
};

/// Sum over all positions; `read(sampler, first, count)` sums a part with a sampler of its own.
template <class Sampler, class Read> double sumOver(Sampler const& prototype, std::vector<float3> const& positions, Read read)
{
    constexpr std::int64_t kPart = 4096;
    const auto count = std::int64_t(positions.size());
    std::vector<double> sums(std::size_t((count + kPart - 1) / kPart));
    tilegrid::parallel::forRanges(0, std::int64_t(sums.size()), 1, [&](std::int64_t begin, std::int64_t end) {
        const Sampler sampler(prototype);
        for (std::int64_t part = begin; part < end; ++part)
            sums[std::size_t(part)] = read(sampler, positions.data() + part * kPart, std::min(kPart, count - part * kPart));
    });
    double total = 0;
    for (double sum : sums) total += sum;
    return total;
}
template <class Sampler> double sampleAll(Sampler const& prototype, std::vector<float3> const& positions)
{
    return sumOver(prototype, positions, [](Sampler const& sampler, float3 const* p, std::int64_t count) {
        double sum = 0;
        for (std::int64_t n = 0; n < count; ++n) sum += sampler.sampleLinear(p[n], Sampler::SourceChannel::Traits::maxDepth, kTileSpace);
        return sum;
    });
}
template <class Tr> double cubicAll(CubicSampler<Tr, float> const& prototype, std::vector<float3> const& positions)
{
    return sumOver(prototype, positions, [](CubicSampler<Tr, float> const& sampler, float3 const* p, std::int64_t count) {
        double sum = 0;
        for (std::int64_t n = 0; n < count; ++n) sum += sampler.sampleCubic(p[n], Tr::maxDepth, kTileSpace);
        return sum;
    });
}
template <class Sampler> double gradientAll(Sampler const& prototype, std::vector<float3> const& positions)
{
    return sumOver(prototype, positions, [](Sampler const& sampler, float3 const* p, std::int64_t count) {
        double sum = 0;
        for (std::int64_t n = 0; n < count; ++n) {
            float3 g;
            sum += sampler.sampleLinearWithGradient(p[n], Sampler::SourceChannel::Traits::maxDepth, kTileSpace, g);
            sum += g.x + g.y + g.z;
        }
        return sum;
    });
}
template <class Sampler> double batchAll(Sampler const& prototype, std::vector<float3> const& positions)
{
    return sumOver(prototype, positions, [](Sampler const& sampler, float3 const* p, std::int64_t count) {
        float values[4096];
        sampler.sampleLinearBatch(p, std::size_t(count), Sampler::SourceChannel::Traits::maxDepth, kTileSpace, values);
        double sum = 0;
        for (std::int64_t n = 0; n < count; ++n) sum += values[n];
        return sum;
    });
}

/// The first positions, in their order, whose whole stencil is active.
Positions whole(Load const& load, std::vector<float3> const& positions)
{
    std::vector<int3> places;
    places.reserve(positions.size());
    for (float3 const& p : positions) places.emplace_back(int(std::floor(p.x)), int(std::floor(p.y)), int(std::floor(p.z)));
    const auto inside = load.peer->holdCubes(places);
    auto kept = std::make_shared<std::vector<float3>>();
    for (std::size_t n = 0; n < positions.size() && kept->size() < kMostQueries; ++n)
        if (inside[n]) kept->push_back(positions[n]);
    return kept;
}

Positions randomPositions(Load const& load)
{
    std::mt19937 random(7);
    std::uniform_real_distribution<float> fraction(0.0f, 0.99f);
    std::vector<float3> positions;
    for (int3 const& v : shuffled(load.band, 1)) positions.push_back(float3(v) + float3(fraction(random), fraction(random), fraction(random)));
    return whole(load, positions);
}
/// Rows of voxels along x, off the lattice.
Positions scanlines(Load const& load)
{
    auto band = load.band;
    std::sort(band.begin(), band.end(), [](int3 const& a, int3 const& b) { return std::tie(a.z, a.y, a.x) < std::tie(b.z, b.y, b.x); });
    std::vector<float3> positions;
    for (int3 const& v : band) positions.push_back(float3(v) + float3(0.21f, 0.37f, 0.61f));
    return whole(load, positions);
}
/// The voxels of a grid that is turned by 30 degrees about (1, 1, 1), in blocks of 8 per axis.
Positions turnedGrid(Load const& load)
{
    const float c = std::cos(0.5235988f), s = std::sin(0.5235988f) / std::sqrt(3.0f), d = (1 - c) / 3;
    const auto turned = [&](float3 const& p, float sine) {
        const float along = d * (p.x + p.y + p.z);
        return float3(c * p.x + along + sine * (p.z - p.y), c * p.y + along + sine * (p.x - p.z), c * p.z + along + sine * (p.y - p.x));
    };
    std::vector<std::tuple<int, int, int>> blocks;
    for (int3 const& v : load.band) {
        const float3 p = turned(float3(v), -s);
        blocks.emplace_back(int(std::floor(p.z / 8)), int(std::floor(p.y / 8)), int(std::floor(p.x / 8)));
    }
    std::sort(blocks.begin(), blocks.end());
    blocks.erase(std::unique(blocks.begin(), blocks.end()), blocks.end());
    std::vector<float3> positions;
    for (auto const& [z, y, x] : blocks)
        for (int n = 0; n < 512; ++n) positions.push_back(turned(float3(int3(8 * x, 8 * y, 8 * z) + cubeIndex(8, n)), s));
    return whole(load, positions);
}

/// The positions around which all tiles are there that the cubic sampler asks for.
template <class Tr> Positions uniformOnly(Container<Tr> const& tree, std::vector<float3> const& positions)
{
    const auto accessor = tree.tileAccessor();
    auto kept = std::make_shared<std::vector<float3>>();
    for (float3 const& p : positions) {
        const int3 lowest(int(std::floor(p.x)) - 1, int(std::floor(p.y)) - 1, int(std::floor(p.z)) - 1);
        bool all = true;
        for (int n = 0; n < 8 && all; ++n) {
            const int3 at = lowest + Tr::width * int3(n & 1, n >> 1 & 1, n >> 2);
            all = accessor.find(at.x, at.y, at.z, Tr::maxDepth).depth == Tr::maxDepth;
        }
        if (all) kept->push_back(p);
    }
    return kept;
}

void requireEqual(std::string const& what, double ours, double peer, std::size_t count)
{
    if (std::fabs(ours - peer) <= 1e-5 * double(count)) return;
    std::fprintf(stderr, "%s: the sums are %.9g and %.9g\n", what.c_str(), ours, peer);
    std::exit(1);
}

template <class Tr> void addAll(std::string const& structure, Load const& load, Positions random, Positions turned, Positions lines)
{
    // The volume outlives main's loop over the loads.
    const auto volume = std::make_shared<Volume<Tr>>(load);
    const auto peer = load.peer;
    const auto addOne = [&](std::string const& what, Positions positions, auto ours, auto addPeers) {
        const std::string name = what + "/" + structure + "/" + load.name;
        for (int threads : {1, 2}) {
            add(name, "ours", threads, std::int64_t(positions->size()), [volume, positions, ours] { return std::uint64_t(std::fabs(ours(*volume, *positions))); });
            addPeers(name, threads, positions);
        }
    };
    const auto samplePeers = [&](std::string const& name, int threads, Positions positions) {
        add(name, "peer accessor", threads, std::int64_t(positions->size()), [peer, positions] { return std::uint64_t(std::fabs(peer->sampleByAccessor(*positions))); });
        add(name, "peer stencil", threads, std::int64_t(positions->size()), [peer, positions] { return std::uint64_t(std::fabs(peer->sampleByStencil(*positions))); });
    };
    const auto gradientPeer = [&](std::string const& name, int threads, Positions positions) {
        add(name, "peer stencil", threads, std::int64_t(positions->size()), [peer, positions] { return std::uint64_t(std::fabs(peer->gradientByStencil(*positions))); });
    };
    const auto sample = [](Volume<Tr> const& v, std::vector<float3> const& p) { return sampleAll(v.source(), p); };
    const auto batch = [](Volume<Tr> const& v, std::vector<float3> const& p) { return batchAll(v.compressed(), p); };
    const auto gradient = [](Volume<Tr> const& v, std::vector<float3> const& p) { return gradientAll(v.source(), p); };
    for (auto const& positions : {random, turned, lines}) {
        requireEqual(load.name, sample(*volume, *positions), peer->sampleByAccessor(*positions), positions->size());
        requireEqual(load.name + ", stencil", sample(*volume, *positions), peer->sampleByStencil(*positions), positions->size());
        requireEqual(load.name + ", batch", batch(*volume, *positions), sample(*volume, *positions), 0);
    }
    requireEqual(load.name + ", gradient", gradient(*volume, *random), peer->gradientByStencil(*random), random->size());
    addOne("sample_linear_random", random, sample, samplePeers);
    addOne("sample_linear_resample", turned, sample, samplePeers);
    addOne("sample_linear_scanline", lines, sample, samplePeers);
    addOne("sample_linear_halo_batch", random, batch, samplePeers);
    addOne("sample_gradient", random, gradient, gradientPeer);

    const auto cubic = [](Volume<Tr> const& v, std::vector<float3> const& p) { return cubicAll<Tr>(v.cubic(CubicMode::kCubicC1), p); };
    const auto quadraticPeer = [&](std::string const& name, int threads, Positions positions) {
        add(name, "peer", threads, std::int64_t(positions->size()), [peer, positions] { return std::uint64_t(std::fabs(peer->sampleQuadratic(*positions))); });
    };
    const Positions randomUniform = uniformOnly(*volume->tree, *random), coherent = uniformOnly(*volume->tree, *lines);
    for (auto const& positions : {randomUniform, coherent}) {
        // Different kernels over the same smooth field: a few hundredths of a voxel where it bends.
        const double difference = cubic(*volume, *positions) - peer->sampleQuadratic(*positions);
        if (std::fabs(difference) > 0.01 * double(positions->size())) requireEqual(load.name + ", cubic", difference, 0, 0);
    }
    addOne("sample_cubic_random", randomUniform, cubic, quadraticPeer);
    addOne("sample_cubic_coherent", coherent, cubic, quadraticPeer);
}

}  // namespace

int main(int argc, char** argv)
{
    for (Load const& load : loads(/*withBunny*/ true)) {
        if (load.name == "sphere1024") continue;
        const Positions random = randomPositions(load), turned = turnedGrid(load), lines = scanlines(load);
        addAll<BinaryTraits>("binary", load, random, turned, lines);
        addAll<QuinaryTraits>("quinary", load, random, turned, lines);
    }
    return runAll(argc, argv, "sampling");
}
