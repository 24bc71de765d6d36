#include <TilegridOps/io/error.h>
#include <TilegridOps/io/mesh.h>

#include <cstdio>

/// The unit cube: it is closed and encloses 1. And an exception of the library arrives as what it is.
int main()
{
    tilegrid::io::TriangleMesh cube;
    for (int n = 0; n < 8; ++n) cube.vertices.push_back({float(n & 1), float(n >> 1 & 1), float(n >> 2)});
    cube.triangles = {{0, 2, 3}, {0, 3, 1}, {4, 5, 7}, {4, 7, 6}, {0, 1, 5}, {0, 5, 4},
                      {2, 6, 7}, {2, 7, 3}, {0, 4, 6}, {0, 6, 2}, {1, 3, 7}, {1, 7, 5}};
    try {
        tilegrid::io::writeMesh("/nowhere/at/all/cube.ply", cube);
        return 1;
    } catch (tilegrid::io::InputError const&) {
    }
    std::printf("%s, volume %g\n", tilegrid::io::meshTopology(cube).closed() ? "closed" : "open", tilegrid::io::enclosedVolume(cube));
}
