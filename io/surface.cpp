#include "io/surface.h"

#include "TilegridOps/surface/surface.h"
#include "io/plain_channel.h"
#include "io/volume_access.h"

namespace tilegrid::io {

using namespace OST::TileTree3D;

TriangleMesh extractSurface(Ostara::Object const& volume)
{
    return withTree(volume, []<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const& topology) {
        Corvid::String const& name = Ostara::Geometry::sVoxelSignedDistance;
        surface::Surface surface;
        const auto extract = [&]<class C>() {
            const auto channel = native.component<C>(name);
            if constexpr (std::is_same_v<C, PlainChannel<Tr, float>>)
                surface = surface::extractSurface<Tr>(tree, topology, *channel);
            else
                surface = surface::extractSurface<Tr>(tree, topology, plainCopy<Tr>(tree, *channel));
        };
        if (!tryLayouts<Tr, float>(native, name, extract))
            throw InputError("the volume has no signed distance (a float property '" + name.str() + "')");
        return TriangleMesh{std::move(surface.vertices), std::move(surface.triangles), std::move(surface.normals)};
    });
}

}  // namespace tilegrid::io
