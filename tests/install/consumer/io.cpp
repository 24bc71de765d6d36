#include <TilegridOps/TilegridOps.h>
#include <TilegridOps/io/attribute.h>
#include <TilegridOps/io/check.h>
#include <TilegridOps/io/compare.h>
#include <TilegridOps/io/error.h>
#include <TilegridOps/io/fog.h>
#include <TilegridOps/io/formats.h>
#include <TilegridOps/io/image.h>
#include <TilegridOps/io/info.h>
#include <TilegridOps/io/level_set_from_mesh.h>
#include <TilegridOps/io/level_set_from_shape.h>
#include <TilegridOps/io/mesh.h>
#include <TilegridOps/io/mesh_clean.h>
#include <TilegridOps/io/mesh_info.h>
#include <TilegridOps/io/mesh_properties.h>
#include <TilegridOps/io/mesh_transform.h>
#include <TilegridOps/io/points.h>
#include <TilegridOps/io/render.h>
#include <TilegridOps/io/sample.h>
#include <TilegridOps/io/savings.h>
#include <TilegridOps/io/slice.h>
#include <TilegridOps/io/surface.h>
#include <TilegridOps/io/vdb.h>
#include <TilegridOps/io/view.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

/// Calls a function of every header of the library; each answer is known. An exception of the library arrives as what it is.
namespace {

using namespace tilegrid::io;

void expect(bool holds, char const* what)
{
    if (holds) return;
    std::fprintf(stderr, "not as expected: %s\n", what);
    std::exit(1);
}

TriangleMesh unitCube()
{
    TriangleMesh cube;
    for (int n = 0; n < 8; ++n) cube.vertices.push_back({float(n & 1), float(n >> 1 & 1), float(n >> 2)});
    cube.triangles = {{0, 2, 3}, {0, 3, 1}, {4, 5, 7}, {4, 7, 6}, {0, 1, 5}, {0, 5, 4},
                      {2, 6, 7}, {2, 7, 3}, {0, 4, 6}, {0, 6, 2}, {1, 3, 7}, {1, 7, 5}};
    return cube;
}

template <class Call> bool throwsInputError(Call const& call)
{
    try {
        call();
    } catch (InputError const&) {
        return true;
    }
    return false;
}

void makesAndMeasures(Corvid::RuntimeServices const& services)
{
    TriangleMesh mesh = unitCube();
    expect(throwsInputError([&] { writeMesh("/nowhere/at/all/cube.ply", mesh); }), "error.h");
    transformMesh(mesh, {.move = {1, 0, 0}});
    expect(mesh.vertices[0].x == 1.0f, "mesh_transform.h");
    const auto cube = levelSetFromMesh(mesh, {.voxelSize = 0.125f}, services);
    const auto same = levelSetFromShape(Box{{1, 0, 0}, {2, 1, 1}}, {.voxelSize = 0.125f});
    expect(describeMesh(mesh).triangles == 12, "mesh_info.h");
    TriangleMesh twice = mesh;
    twice.triangles.insert(twice.triangles.end(), mesh.triangles.begin(), mesh.triangles.end());
    expect(dropRepeatedTriangles(twice, TwinRule::kCancel) == 12, "mesh_clean.h");
    // Both hold the same distances, but for the rounding of floats.
    expect(compareVolumes(*cube, *same, {.property = "voxel_signed_distance"}).largest < 1e-6, "compare.h, level_set_from_*.h");
    expect(std::abs(describeVolume(*cube).levelSet->volume - 1.0) < 0.05, "info.h");
    expect(checkVolume(*cube).good(), "check.h");
    expect(samplePlaces(*cube, "voxel_signed_distance", SampleMode::kLinear, {{1, 0.5f, 0.5f}}).values[0] == 0.0, "sample.h");
    expect(meshTopology(extractSurface(*cube)).closed(), "surface.h");
    expect(measureSavings(*cube, {cube.get()}, Combination::kUnion).merged.voxelSize == 0.125, "savings.h");
    const auto fog = fogFromLevelSet(cube, 0.25f, /*keep*/ true, services);
    expect(samplePlaces(*fog, "voxel_fog_density", SampleMode::kLinear, {{1.5f, 0.5f, 0.5f}}).values[0] == 1.0, "fog.h");
    const View side{.azimuth = 30};
    expect(renderImage(*cube, {.size = 64, .view = side}).width > 16, "render.h, view.h");
    const Image slice = sliceImage(*cube, {.size = 64});
    expect(slice.rgb.size() == std::size_t(3) * slice.width * slice.height, "slice.h");
    expect(throwsInputError([] { writePng("empty.png", Image()); }), "image.h");
    expect(throwsInputError([&] { readVdb("/nowhere/at/all.vdb", {}, services); }), "vdb.h");
    expect(!isPointCloud(*cube), "points.h");
    expect(endingsThat(&FileFormat::writesMeshes).size() >= 4, "formats.h");
    mesh.attributes = {Attribute{kColor, 3, std::vector<float>(3 * mesh.vertices.size(), 0.5f)}};
    TriangleMesh surface = extractSurface(*levelSetFromMesh(mesh, {.voxelSize = 0.125f}, services));
    expect(surface.attributes.empty(), "attribute.h");
    addPropertiesAtVertices(surface, *levelSetFromMesh(mesh, {.voxelSize = 0.125f}, services));
    expect(surface.attributes.size() == 1 && surface.attributes[0].values[0] == 0.5f, "mesh_properties.h");
}

}  // namespace

int main()
{
    makesAndMeasures(Corvid::RuntimeServices());
    const TriangleMesh cube = unitCube();
    std::printf("%s, volume %g\n", meshTopology(cube).closed() ? "closed" : "open", enclosedVolume(cube));
}
