#include "benchmarks/support/bench.h"
#include "benchmarks/support/loads.h"

#include "TilegridOps/stencils/kernels.h"
#include "TilegridOps/stencils/pass.h"
#include "TilegridOps/substrate/grading.h"

#include <cstring>

/// Stencils over a level set, per active voxel of the peer: the Laplacian against the peer's own, and a 3x3x3 mean against the
/// peer's filter. Both sides write a second grid.

namespace {

using namespace bench;
namespace st = tilegrid::stencils;

template <class Tr> struct Channels {
    std::shared_ptr<Container<Tr>> tree;
    Corvid::MutablePtr<FloatChannel<Tr>> in, out;
};

template <class Tr> std::uint64_t checksum(Channels<Tr> const& c)
{
    std::uint32_t bits;
    const float value = c.out->tileData(c.tree->tileCount(Tr::maxDepth) / 2, Tr::maxDepth)(0);
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

template <class Tr> TILEGRID_CLONES void laplacian(st::StencilBlock<Tr> const& block, float* out, float scale)
{
    st::sevenPoint<Tr>(block, out, [scale](auto& result, auto& c, auto& x0, auto& x1, auto& y0, auto& y1, auto& z0, auto& z1)
                       { result = (((x0 + x1) + (y0 + y1)) + (z0 + z1) - c * 6.0f) * scale; });
}
template <class Tr> TILEGRID_CLONES void mean(st::StencilBlock<Tr> const& block, float* out)
{
    st::separable3<Tr>(block, out, 1.0f / 3, 1.0f / 3);
}

template <class Tr> std::uint64_t laplacianPass(Channels<Tr>& c)
{
    st::stencilPass<Tr>(*c.tree, *c.in, *c.out, st::Reach::kFaces, kCorner, Tr::maxDepth, Tr::maxDepth,
                        [](auto const&, auto const& block, float* out) { laplacian<Tr>(block, out, 1.0f); });
    return checksum(c);
}
template <class Tr> std::uint64_t meanPass(Channels<Tr>& c)
{
    st::stencilPass<Tr>(*c.tree, *c.in, *c.out, st::Reach::kFacesEdgesCorners, kCorner, Tr::maxDepth, Tr::maxDepth,
                        [](auto const&, auto const& block, float* out) { mean<Tr>(block, out); });
    return checksum(c);
}

template <class Tr> std::shared_ptr<Channels<Tr>> makeChannels(Load const& load)
{
    auto made = std::make_shared<Channels<Tr>>();
    made->tree = treeOf<Tr>(load);
    // As filters find their volumes: tiles that touch differ by one depth at the most.
    CoreGL::TileTree3D::gradeTileTree<Tr>(*made->tree, nullptr, nullptr, 0, Tr::maxDepth);
    made->in = sphereChannel(*made->tree, SphereField{100.0f}, 0);
    made->out = Corvid::makeMutable<FloatChannel<Tr>>(*made->in);
    return made;
}

template <class Tr> void addAll(std::string const& width, Load const& load)
{
    const auto c = makeChannels<Tr>(load), bare = makeChannels<Tr>(load);
    c->tree->precomputeTileNeighbors();
    const std::int64_t voxels = std::int64_t(load.band.size());
    for (int threads : {1, 2}) {
        const std::string at = width + "/" + load.name;
        add("stencil7_" + at, "ours", threads, voxels, [c] { return laplacianPass(*c); });
        add("stencil7_no_table_" + at, "ours", threads, voxels, [bare] { return laplacianPass(*bare); });
        add("stencil7_" + at, "peer", threads, voxels, [peer = load.peer] { return peer->laplacian(); });
        add("separable3_" + at, "ours", threads, voxels, [c] { return meanPass(*c); });
        add("separable3_no_table_" + at, "ours", threads, voxels, [bare] { return meanPass(*bare); });
        add("separable3_" + at, "peer", threads, voxels, [peer = load.peer] { return peer->mean(); });
    }
}

}  // namespace

int main(int argc, char** argv)
{
    for (Load const& load : loads(/*withBunny*/ true)) {
        if (load.name == "sphere1024") continue;
        addAll<BinaryTraits>("w4", load);
        addAll<QuinaryTraits>("w5", load);
    }
    return runAll(argc, argv, "stencils");
}
