#include "TilegridOps/nodes/transfer.h"

#include "TilegridOps/algorithms/resample.h"
#include "TilegridOps/nodes/frame.h"

namespace Geometry::Volume {

using namespace tilegrid::nodes;
using Corvid::Ptr;

void resample_volume(Ostara::Object const& source, Ptr<Ostara::Object> target, Corvid::String const& property,
                     Ostara::Math::float4x4 const& transform, float voxel_size, AutoSubdivisionStructure structure, InterpolationMode interpolation,
                     Ptr<Ostara::Object>& output, Corvid::RuntimeServices const& services)
{
    constexpr NodeSpec const& row = nodeSpec("resample_volume");
    // The output may be the last owner of the source.
    const Ostara::Object kept = source;
    const auto work = [&] {
        if (Corvid::isJobCancelled()) {
            output = Ostara::createObject();
            return;
        }
        output = Corvid::toMutable(target);
        if (!Ostara::Object::isA(source, *Ostara::Geometry::getVolumePrototype())) return;
        const CoreGL::CorvidLogger logger(services);
        VolumeGL::TileTree3D::resample<CoreGL::CorvidLogger>(property, transform, voxel_size, structure,
                                                             OST::TileTree3D::interpolationMode(interpolation), kept, output, logger);
        if (output && output->native()) checkVolume(*output->native(), row.name);
    };
    guarded(row, services, work, [&] { output = Ostara::createObject(); });
}

}  // namespace Geometry::Volume
