#include "TilegridOps/nodes/transfer.h"

#include "TilegridOps/algorithms/resample.h"
#include "TilegridOps/algorithms/splat.h"
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

void splat_points_into_volume(Ptr<Ostara::Object> volume, Ostara::Object const& points, bool option, Corvid::String const& property,
                              SplatKernelType kernel, float a, float b, float c, float d, int count, Ptr<Ostara::Object>& output,
                              Corvid::RuntimeServices const& services)
{
    constexpr NodeSpec const& row = nodeSpec("splat_points_into_volume");
    using namespace VolumeGL::TileTree3D;
    const auto timer = CoreGL::Logger::timer(Corvid::String(row.timer), &services);
    // The output may be the last owner of the points.
    const Ostara::Object cloud = points;
    const auto refused = [&](std::string_view message) {
        CoreGL::CorvidLogger(services).error(message);
        output = Ostara::createObject();
    };
    const auto work = [&] {
        if (Corvid::isJobCancelled()) {
            output = Ostara::createObject();
            return;
        }
        output = Corvid::toMutable(volume);
        if (!Ostara::Object::isA(cloud, *Ostara::Geometry::getPointCloudPrototype())) return refused("Input 'points' is not a point cloud.");
        if (!output || !Ostara::Object::isA(*output, *Ostara::Geometry::getVolumePrototype())) return refused(row.typeError);
        auto native = Ostara::Geometry::move_object_to_ost_volume(*Corvid::toMutable(output));
        if (!native) return;
        switch (kernel) {
            case SplatKernelType::kLinear: splatPoints<Splat::LinearKernel>(a, b, c, d, count, option, property, cloud, *native); break;
            case SplatKernelType::kQuadratic: splatPoints<Splat::QuadraticKernel>(a, b, c, d, count, option, property, cloud, *native); break;
        }
        checkVolume(*native, row.name);
        output = Ostara::Geometry::move_ost_volume_to_object(*native);
    };
    guarded(row, services, work, [&] { output = Ostara::createObject(); });
}

}  // namespace Geometry::Volume
