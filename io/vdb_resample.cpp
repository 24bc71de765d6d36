#include "io/vdb_resample.h"

#include "TilegridOps/algorithms/consistent_values.h"
#include "TilegridOps/host/geometry.h"
#include "TilegridOps/nodes/grading.h"
#include "TilegridOps/nodes/level_set.h"
#include "TilegridOps/nodes/transfer.h"
#include "TilegridOps/substrate/channel.h"
#include "io/error.h"

namespace tilegrid::io {

namespace {

Ostara::Math::float4x4 matrixOf(AffineMap const& map)
{
    Ostara::Math::float4x4 matrix;
    for (int column = 0; column < 3; ++column) {
        for (int row = 0; row < 3; ++row) matrix(row, column) = float(map.m[row][column]);
        matrix(3, column) = float(map.t[column]);
    }
    matrix(3, 3) = 1;
    return matrix;
}

void warnOfLosses(Ostara::Object const& volume, Ostara::Object const& resampled, Corvid::RuntimeServices const& services)
{
    for (Corvid::String const& name : volume.native()->componentRange())
        if (volume.native()->hasComponentFromName<OST::TileTree3D::ChannelBase>(name) && !resampled.native()->hasComponentFromName(name))
            services.message(Severity::kWarning, "property '" + name.str() + "' is left out: whole numbers cannot be resampled");
}

}  // namespace

Corvid::Ptr<Ostara::Object> resampledToWorld(Corvid::Ptr<Ostara::Object> const& volume, std::string const& name, AffineMap const& toWorld,
                                             float voxelSize, VdbOptions const& options, Corvid::RuntimeServices const& services)
{
    std::string error;
    const Corvid::RuntimeServices inner(
        services.job(),
        [&](Severity severity, Corvid::StringView text) {
            if (severity == Severity::kError)
                error = std::string_view(text);
            else
                services.message(severity, text);
        },
        {}, options.maxBytes);
    Corvid::Ptr<Ostara::Object> output;
    Geometry::Volume::resample_volume(*volume, nullptr, "", matrixOf(toWorld), voxelSize, Geometry::Volume::AutoSubdivisionStructure::kAutomatic,
                                      Geometry::Volume::InterpolationMode::kLinear, output, inner);
    if (!error.empty() || !output || !output->native())
        throw InputError("grid '" + name + "' cannot be resampled: " + error + " Give larger voxels (voxel=), or more memory (--max-memory).");
    warnOfLosses(*volume, *output, services);
    // Voxels that the map leads out of the volume hold its default. Distances from the surface replace them; hanging voxels can follow
    // only in a graded tree.
    if (output->native()->hasComponentFromName(Ostara::Geometry::sVoxelSignedDistance)) {
        Geometry::Volume::grade_volume(output, inner);
        Corvid::Ptr<Ostara::Object> rebuilt;
        Geometry::Volume::rebuild_level_set(std::move(output), Ostara::Geometry::sVoxelSignedDistance, rebuilt, inner);
        output = std::move(rebuilt);
        if (!error.empty() || !output || !output->native()) throw InputError("grid '" + name + "' cannot be made a distance: " + error);
    }
    auto native = Ostara::Geometry::move_object_to_ost_volume(*Corvid::toMutable(output));
    makeConsistent(*native);
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

}  // namespace tilegrid::io
