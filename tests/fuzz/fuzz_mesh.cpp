#include "fuzz_file.h"

#include "io/error.h"
#include "io/mesh.h"
#include "io/mesh_properties.h"

#include <cmath>
#include <cstdlib>

/// The first byte chooses the format, the rest is the file. Whatever is accepted must be a mesh.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    if (size == 0) return 0;
    static char const* const endings[] = {".obj", ".ply", ".stl", ".off", ".glb", ".gltf"};
    const FuzzFile file(data + 1, size - 1, endings[data[0] % 6]);
    const Corvid::RuntimeServices silent(nullptr, [](tilegrid::Severity, Corvid::StringView) {});
    try {
        const auto mesh = tilegrid::io::readMesh(file.path(), kFuzzBytes, silent);
        if (mesh.triangles.empty()) std::abort();
        for (auto const& v : mesh.vertices)
            if (!std::isfinite(v.x) || !std::isfinite(v.y) || !std::isfinite(v.z)) std::abort();
        for (auto const& t : mesh.triangles)
            for (int corner = 0; corner < 3; ++corner)
                if (t[corner] < 0 || std::size_t(t[corner]) >= mesh.vertices.size()) std::abort();
        tilegrid::io::checkAttributes(mesh);
    } catch (tilegrid::io::InputError const&) {
        // The documented answer to a bad file. Attributes that do not fit the mesh would be our own fault.
    }
    return 0;
}
