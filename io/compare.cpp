#include "io/compare.h"

#include "TilegridOps/substrate/parallel.h"
#include "io/plain_channel.h"
#include "io/property_reader.h"
#include "io/text.h"
#include "io/volume_access.h"

#include <nlohmann/json.hpp>

#include <limits>

namespace tilegrid::io {

using namespace OST::TileTree3D;
using Ostara::Math::double3;

namespace {

struct Sum {
    std::int64_t voxels = 0;
    double absolute = 0, squared = 0, largest = 0;
    double3 where{0.0};

    void add(double difference, double3 const& place)
    {
        const double size = difference == difference ? std::abs(difference) : std::numeric_limits<double>::infinity();
        ++voxels;
        absolute += size;
        squared += size * size;
        if (size > largest) largest = size, where = place;
    }
    void operator+=(Sum const& other)
    {
        voxels += other.voxels;
        absolute += other.absolute;
        squared += other.squared;
        if (other.largest > largest) largest = other.largest, where = other.where;
    }
};

float voxelSizeOf(Ostara::Object const& volume)
{
    return withTree(volume, []<class Tr>(OST::Object const&, Container<Tr> const& tree, VoxelTopology<Tr> const&) { return tree.voxelSize(); });
}

PropertyReaders floatReaders(Ostara::Object const& volume, CompareOptions const& options)
{
    PropertyReaders readers = readersOf(volume, options.property, options.mode);
    if (readers.components != 1) throw InputError("property '" + options.property + "' is not of one number: only those are compared");
    return readers;
}

/// Adds the leaf voxels of one tile.
template <class Tr>
void addTile(PlaceReader const& reader, double scale, float const* values, typename Container<Tr>::Tile const& tile, float3 const& offset,
             std::optional<double> within, Sum& sum)
{
    for (int flat = 0; flat < Tr::voxelCount; ++flat) {
        const int3 ijk = cubeIndex(Tr::width, flat);
        const double value = values[flat];
        if (!tile.isLeaf(tile.voxelChildIJK(ijk.x, ijk.y, ijk.z)) || (within && !(std::abs(value) < *within))) continue;
        double3 place;
        for (int axis = 0; axis < 3; ++axis) place[axis] = tile.tijk()[axis] + (ijk[axis] + offset[axis]) * tile.voxelDataWidth();
        double read = 0;
        reader.read(float3(scale * place), &read);
        sum.add(read - value, place);
    }
}

/// \param scale  from places in the tile space of the reference to those of the volume
template <class Tr>
Sum measure(PropertyReaders const& readers, double scale, Container<Tr> const& tree, PlainChannel<Tr, float> const& channel,
            float3 const& offset, std::optional<double> within)
{
    constexpr OST::int64 kPart = 64;  // tiles whose sums are added in their order: the same bits for any number of threads
    Sum sum;
    for (int depth = std::max(channel.minDepth(), 0); depth <= std::min(channel.depth(), Tr::maxDepth); ++depth) {
        const OST::int64 count = tree.tileCount(depth);
        std::vector<Sum> parts((count + kPart - 1) / kPart);
        parallel::loop(0, static_cast<OST::int64>(parts.size()), 1, [&](OST::int64 begin, OST::int64 end) {
            const auto reader = readers.make();
            for (OST::int64 part = begin; part < end; ++part)
                for (OST::int64 n = part * kPart; n < std::min(count, (part + 1) * kPart); ++n)
                    addTile<Tr>(*reader, scale, channel.tileData(n, depth).data(), tree.tile(n, depth), offset, within, parts[part]);
        });
        for (Sum const& part : parts) sum += part;
    }
    return sum;
}

/// Half width of the band less a voxel, in world units; infinite where the property is none of that.
double innerBand(Ostara::Object const& volume, std::string const& property)
{
    double band = std::numeric_limits<double>::infinity();
    withTree(volume, [&]<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const&) {
        const Corvid::String name(property);
        const auto read = [&]<class C>() {
            const double inner = double(std::abs(native.component<C>(name)->defaultValue())) - double(tree.voxelSize());
            if (std::isfinite(inner) && inner > 0) band = inner;
        };
        tryLayouts<Tr, float>(native, name, read);
        return 0;
    });
    return band;
}

}  // namespace

std::optional<double> comparableDistance(Ostara::Object const& volume, Ostara::Object const& reference, std::string const& property)
{
    const double band = std::min(innerBand(volume, property), innerBand(reference, property));
    return std::isfinite(band) ? std::optional(band) : std::nullopt;
}

Comparison compareVolumes(Ostara::Object const& volume, Ostara::Object const& reference, CompareOptions const& options)
{
    const PropertyReaders readers = floatReaders(volume, options);
    return withTree(reference, [&]<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const& topology) {
        std::optional<Sum> sum;
        const auto measureChannel = [&]<class C>() {
            const double scale = double(tree.voxelSize()) / voxelSizeOf(volume);
            const auto plain = plainCopy<Tr>(tree, *native.component<C>(Corvid::String(options.property)));
            sum = measure<Tr>(readers, scale, tree, plain, topology.offset(), options.within);
        };
        tryLayouts<Tr, float>(native, Corvid::String(options.property), measureChannel);
        if (!sum) throw InputError("the volume to compare with has no property '" + options.property + "' of type float");
        Comparison result{sum->voxels, 0, 0, sum->largest, double(tree.voxelSize()) * sum->where};
        result.within = options.within;
        if (sum->voxels > 0) {
            result.mean = sum->absolute / double(sum->voxels);
            result.rootMeanSquare = std::sqrt(sum->squared / double(sum->voxels));
        }
        return result;
    });
}

std::string toJson(Comparison const& comparison)
{
    const auto finite = [](double value) { return std::isfinite(value) ? nlohmann::ordered_json(value) : nlohmann::ordered_json(nullptr); };
    nlohmann::ordered_json json = {{"voxels", comparison.voxels},
                                         {"mean", finite(comparison.mean)},
                                         {"root_mean_square", finite(comparison.rootMeanSquare)},
                                         {"largest", finite(comparison.largest)},
                                         {"where", {comparison.where.x, comparison.where.y, comparison.where.z}}};
    if (comparison.within) json["within"] = *comparison.within;
    return json.dump(2) + "\n";
}

std::string toText(Comparison const& comparison)
{
    const std::string where = comparison.within ? " where the reference is within " + number(*comparison.within) : "";
    if (comparison.voxels == 0) return "no voxel to compare at" + where + "\n";
    return "difference  mean " + number(comparison.mean) + ", root mean square " + number(comparison.rootMeanSquare) + ", largest " +
           number(comparison.largest) + "\n            at " + std::to_string(comparison.voxels) + " voxels" + where + ", the largest at " +
           number(comparison.where.x) + " " + number(comparison.where.y) + " " + number(comparison.where.z) + "\n";
}

}  // namespace tilegrid::io
