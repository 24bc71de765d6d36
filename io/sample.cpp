#include "io/sample.h"

#include "TilegridOps/substrate/parallel.h"
#include "io/property_reader.h"
#include "io/volume_access.h"

namespace tilegrid::io {

using namespace OST::TileTree3D;

Samples samplePlaces(Ostara::Object const& volume, std::string const& property, SampleMode mode,
                     std::vector<float3> const& places)
{
    const PropertyReaders readers = readersOf(volume, property, mode);
    if (readers.components == 0)
        throw InputError("property '" + property + "' has values without a fraction: nothing lies between two of them");
    const float perVoxel = 1.0f / withTree(volume, []<class Tr>(OST::Object const&, Container<Tr> const& tree, VoxelTopology<Tr> const&) {
        return tree.voxelSize();
    });
    Samples samples{readers.components, std::vector<double>(places.size() * std::size_t(readers.components))};
    parallel::loop(0, static_cast<OST::int64>(places.size()), 256, [&](OST::int64 begin, OST::int64 end) {
        const auto reader = readers.make();
        for (OST::int64 n = begin; n < end; ++n)
            reader->read(perVoxel * places[std::size_t(n)], samples.values.data() + n * readers.components);
    });
    return samples;
}

}  // namespace tilegrid::io
