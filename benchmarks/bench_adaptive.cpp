#include "benchmarks/support/peer.h"
#include "io/error.h"
#include "io/mesh.h"

#include <cstdio>
#include <cstdlib>

/// What the table of adaptive merges (benchmarks/adaptive_table) needs beside the command: prints the bytes of the peer's level set of
/// a closed mesh, three voxels to each side.    usage: bench_adaptive MESH VOXEL

int main(int argc, char** argv)
try {
    const double voxel = argc == 3 ? std::atof(argv[2]) : 0;
    if (!(voxel > 0)) throw tilegrid::io::InputError("usage: bench_adaptive MESH VOXEL");
    const tilegrid::io::TriangleMesh mesh = tilegrid::io::readMesh(argv[1], 0, Corvid::RuntimeServices());
    std::printf("%llu\n", static_cast<unsigned long long>(bench::PeerGrid::mesh(mesh.vertices, mesh.triangles, float(voxel)).memoryBytes()));
} catch (tilegrid::io::InputError const& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
