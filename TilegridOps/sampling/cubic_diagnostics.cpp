#include "TilegridOps/sampling/cubic_diagnostics.h"

#include <iostream>
#include <sstream>

namespace OST::TileTree3D {

CubicDiagnostics& cubicDiagnostics()
{
    static CubicDiagnostics diagnostics;
    return diagnostics;
}

void nanInfo(char const* message, CubicQueryState const& state)
{
    if (cubicDiagnostics().silent) return;
    std::ostringstream out;
    out << "DEBUG BEGIN\n"
        << "VoxelSamplerCubic.nanInfo '" << message << "'\n"
        << "in_depth = " << state.depth << "\nin_tijk = " << state.tijk << "\nllc = " << state.corner << "\nin_lijk = " << state.lijk
        << "\nin_frac = " << state.frac << "\nvdw = " << state.voxelWidth << "\ntdw = " << state.tileVoxels
        << "\ntvw = " << state.tileWidth << "\ndofIsValid = " << state.hasDofs << "\norigin = " << state.origin << "\n";
    for (int n = 0; n < 8; ++n) {
        auto const& place = state.places[static_cast<std::size_t>(n)];
        out << "Tile(" << (n & 1) << "," << (n >> 1 & 1) << "," << (n >> 2) << ") = ";
        if (place.valid)
            out << place.corner << ", depth = " << place.depth << "\n";
        else
            out << "nullptr\n";
    }
    out << "DEBUG END\n";
    std::cout << out.str() << std::flush;
}

void traceCubic(char const* line)
{
    if (cubicDiagnostics().traces) std::cout << line << std::endl;
}

}  // namespace OST::TileTree3D
