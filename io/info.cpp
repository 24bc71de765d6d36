#include "io/info.h"

#include "TilegridOps/substrate/parallel.h"
#include "io/surface_measure.h"
#include "io/text.h"
#include "io/volume_access.h"

#include <nlohmann/json.hpp>

#include <charconv>
#include <iomanip>
#include <sstream>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

using Json = nlohmann::ordered_json;

/// The shortest text that reads back as the same value; JSON has no name for what is not finite.
template <class T> void appendNumber(std::string& text, T value)
{
    if constexpr (std::is_floating_point_v<T>)
        if (!std::isfinite(value)) {
            text += "null";
            return;
        }
    char buffer[64];
    const auto end = [&] {
        if constexpr (sizeof(T) == 1)
            return std::to_chars(buffer, buffer + sizeof buffer, static_cast<int>(value)).ptr;
        else
            return std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    }();
    text.append(buffer, end);
}

template <class T> std::string valueText(T const& value)
{
    using Traits = Ostara::Math::ElementTraits<T>;
    std::string text;
    if constexpr (Traits::components == 1) {
        appendNumber(text, value);
    } else {
        for (int i = 0; i < Traits::components; ++i) {
            text += i == 0 ? "[" : ", ";
            appendNumber(text, Traits::at(value, i));
        }
        text += "]";
    }
    return text;
}

/// Calls `visit(tile, ijk)` for every leaf voxel of a tile.
template <class Tile, class Visit> void forEachLeafVoxel(Tile const& tile, Visit const& visit)
{
    for (int k = 0; k < Tile::width; ++k)
        for (int j = 0; j < Tile::width; ++j)
            for (int i = 0; i < Tile::width; ++i)
                if (tile.isLeaf(Tile::voxelChildIJK(i, j, k))) visit(int3(i, j, k));
}

/// Least and greatest of each component over the leaf voxels. A NaN is passed over.
template <class Tr, class C>
PropertyInfo describeProperty(Container<Tr> const& tree, C const& channel, std::string const& name)
{
    using T = typename C::Element;
    using Traits = Ostara::Math::ElementTraits<T>;
    using Scalar = typename Traits::Scalar;
    T low{}, high{};
    bool known[Traits::components] = {};
    for (int depth = std::max(channel.minDepth(), 0); depth <= std::min(channel.depth(), Tr::maxDepth); ++depth)
        for (OST::int64 n = 0; n < tree.tileCount(depth); ++n) {
            auto const& tile = tree.tile(n, depth);
            const auto values = channel.tileData(n, depth);
            if (!values) continue;
            forEachLeafVoxel(tile, [&](int3 const& ijk) {
                for (int c = 0; c < Traits::components; ++c) {
                    const Scalar v = Traits::at(values(ijk), c);
                    if (v != v) continue;
                    if (!known[c] || v < Traits::at(low, c)) Traits::at(low, c) = v;
                    if (!known[c] || v > Traits::at(high, c)) Traits::at(high, c) = v;
                    known[c] = true;
                }
            });
        }
    PropertyInfo info{name, elementTypeName<T>(), valueText(channel.defaultValue()), "null", "null"};
    if (known[0]) info.min = valueText(low), info.max = valueText(high);
    return info;
}

/// Volume and area in tile space of the surface in the leaf cells of one tile. `origin` is near the surface, so that
/// the terms of the volume do not cancel.
template <class Tr, class C, class Tile>
SurfaceMeasure measureTile(VolumeReader<Tr, C> const& reader, Tile const& tile, VoxelOffsetType offset,
                           double3 const& origin)
{
    constexpr int N = Tr::width + 1;
    std::array<double, N * N * N> values;
    bool below = false, above = false;
    for (int n = 0; n < N * N * N; ++n) {
        values[n] = reader.sample(tile, cubeIndex(N, n));
        (values[n] < 0.0 ? below : above) = true;
    }
    SurfaceMeasure sum;
    if (!below || !above) return sum;
    const double width = tile.voxelDataWidth();
    const float3 shift = voxelOffset(offset);
    forEachLeafVoxel(tile, [&](int3 const& ijk) {
        std::array<double, 8> corners;
        for (int corner = 0; corner < 8; ++corner)
            corners[corner] =
                values[flatIndex(N, ijk.x + (corner & 1), ijk.y + (corner >> 1 & 1), ijk.z + (corner >> 2))];
        double3 low;
        for (int axis = 0; axis < 3; ++axis)
            low[axis] = tile.tijk()[axis] + (ijk[axis] + shift[axis]) * width - origin[axis];
        sum += measureCell(low, width, corners);
    });
    return sum;
}

/// A surface as a whole, and the widths of the leaf voxels that it crosses, in finest voxels; 0: none.
struct WholeSurface {
    SurfaceMeasure sum;
    double finestVoxel = 0, coarsestVoxel = 0;
};

template <class Tr, class C>
WholeSurface measureSurface(Container<Tr> const& tree, C const& channel, VoxelOffsetType offset,
                              double3 const& origin)
{
    // Parts of a fixed size, added in their order: the same bits for any number of threads.
    constexpr OST::int64 kPart = 64;
    WholeSurface whole;
    for (int depth = 0; depth <= Tr::maxDepth; ++depth) {
        const OST::int64 count = tree.tileCount(depth);
        std::vector<SurfaceMeasure> parts((count + kPart - 1) / kPart);
        parallel::forRanges(0, static_cast<OST::int64>(parts.size()), 1, [&](OST::int64 begin, OST::int64 end) {
            const VolumeReader<Tr, C> reader(tree, channel, offset);
            for (OST::int64 part = begin; part < end; ++part)
                for (OST::int64 n = part * kPart; n < std::min(count, (part + 1) * kPart); ++n)
                    parts[part] += measureTile(reader, tree.tile(n, depth), offset, origin);
        });
        bool crossed = false;
        for (SurfaceMeasure const& part : parts) {
            whole.sum += part;
            crossed |= part.area > 0;
        }
        if (!crossed) continue;
        // Coarse depths come first.
        whole.finestVoxel = tree.tile(0, depth).voxelDataWidth();
        if (whole.coarsestVoxel == 0) whole.coarsestVoxel = whole.finestVoxel;
    }
    return whole;
}

template <class Tr>
std::optional<LevelSetInfo> describeLevelSet(Ostara::Object const& volume, OST::Object const& native,
                                             Container<Tr> const& tree, VoxelOffsetType offset)
{
    std::optional<LevelSetInfo> info;
    const auto measure = [&]<class C>() {
        Ostara::Math::bbox<float3, float> box;
        Ostara::GeometryAlgorithms::getVolumeBounds(volume, box);
        const double h = tree.voxelSize();
        const double3 middle = (0.5 / h) * (double3(box.min) + double3(box.max));
        const auto [sum, finest, coarsest] =
            measureSurface<Tr>(tree, *native.component<C>(Ostara::Geometry::sVoxelSignedDistance), offset, middle);
        info = LevelSetInfo{box.min, box.max, sum.volume * h * h * h, sum.area * h * h, finest * h, coarsest * h};
    };
    tryLayouts<Tr, float>(native, Ostara::Geometry::sVoxelSignedDistance, measure);
    return info;
}

/// A float as JSON shows it best: with as many digits as a float has.
template <class T> Json jsonOf(T const& value) { return Json::parse(valueText(value)); }

/// A count with a comma before every three digits from the end.
std::string grouped(std::int64_t count)
{
    const std::string digits = std::to_string(count);
    std::string text;
    for (std::size_t n = 0; n < digits.size(); ++n) {
        if (n > 0 && (digits.size() - n) % 3 == 0) text += ',';
        text += digits[n];
    }
    return text;
}

/// A line for each depth with tiles; one for all in a row that have as many of both.
void writeDepths(std::ostream& out, VolumeInfo const& info)
{
    const auto alike = [&info](std::size_t a, std::size_t b) {
        return info.tilesByDepth[a] == info.tilesByDepth[b] && info.leafVoxelsByDepth[a] == info.leafVoxelsByDepth[b];
    };
    for (std::size_t begin = 0, end = 0; begin < info.tilesByDepth.size(); begin = end) {
        for (end = begin + 1; end < info.tilesByDepth.size() && alike(begin, end);) ++end;
        if (info.tilesByDepth[begin] == 0) continue;
        const bool several = end - begin > 1;
        out << std::setw(5) << (several ? std::to_string(begin) + "-" + std::to_string(end - 1) : std::to_string(begin)) << std::setw(16)
            << grouped(info.tilesByDepth[begin]) << std::setw(18) << grouped(info.leafVoxelsByDepth[begin]) << (several ? "  each" : "") << "\n";
    }
}

}  // namespace

VolumeInfo describeTiles(Ostara::Object const& volume)
{
    return withTree(volume, []<class Tr>(OST::Object const&, Container<Tr> const& tree, VoxelTopology<Tr> const&) {
        VolumeInfo info;
        info.structure = Tr::branching == 2 ? "binary" : "quinary";
        info.voxelSize = tree.voxelSize();
        for (int depth = 0; depth <= Tr::maxDepth; ++depth) {
            info.tilesByDepth.push_back(tree.tileCount(depth));
            info.leafVoxelsByDepth.push_back(tree.voxelCount(depth));
        }
        return info;
    });
}

std::uint64_t contentBytes(Ostara::Object const& volume)
{
    if (!volume.native()) return 0;
    std::size_t used = 0, reserved = 0;
    for (Corvid::String const& name : volume.native()->componentRange())
        volume.native()->component<OST::Component>(name)->memUse(used, reserved, /*withLookup*/ false);
    return used;
}

VolumeInfo describeVolume(Ostara::Object const& volume)
{
    return withTree(
        volume, [&]<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const& topology) {
            VolumeInfo info = describeTiles(volume);
            if (float const* error = volume.get<float>(kRefinementError)) info.refinementError = *error;
            info.bytes = contentBytes(volume);
            for (Corvid::String const& name : native.componentRange())
                tryElements<Tr>(native, name, [&]<class C>() {
                    info.properties.push_back(describeProperty<Tr>(tree, *native.component<C>(name), name.str()));
                });
            info.levelSet = describeLevelSet<Tr>(volume, native, tree, topology.offsetType());
            return info;
        });
}

std::string toJson(VolumeInfo const& info)
{
    Json json;
    json["structure"] = info.structure;
    json["voxel_size"] = jsonOf(static_cast<float>(info.voxelSize));
    json["tiles_by_depth"] = info.tilesByDepth;
    json["leaf_voxels_by_depth"] = info.leafVoxelsByDepth;
    json["bytes"] = info.bytes;
    json["properties"] = Json::array();
    for (PropertyInfo const& property : info.properties)
        json["properties"].push_back({{"name", property.name},
                                      {"type", property.type},
                                      {"default", Json::parse(property.defaultValue)},
                                      {"min", Json::parse(property.min)},
                                      {"max", Json::parse(property.max)}});
    if (info.levelSet)
        json["level_set"] = {{"bounds_min", jsonOf(info.levelSet->boundsMin)},
                             {"bounds_max", jsonOf(info.levelSet->boundsMax)},
                             {"volume", info.levelSet->volume},
                             {"area", info.levelSet->area}};
    if (info.levelSet && info.levelSet->finestVoxel > 0) {
        json["level_set"]["voxel_min"] = jsonOf(static_cast<float>(info.levelSet->finestVoxel));
        json["level_set"]["voxel_max"] = jsonOf(static_cast<float>(info.levelSet->coarsestVoxel));
    }
    if (info.refinementError) json["refinement_error"] = jsonOf(static_cast<float>(*info.refinementError));
    // Names are bytes from files: what is no UTF-8 is shown as a replacement character.
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string toText(VolumeInfo const& info)
{
    std::ostringstream out;
    std::int64_t leafVoxels = 0;
    for (const std::int64_t count : info.leafVoxelsByDepth) leafVoxels += count;
    out << "structure   " << info.structure << "\nvoxel size  " << number(info.voxelSize) << "\n";
    out << "memory      " << byteText(double(info.bytes));
    if (leafVoxels > 0) out << " (" << number(double(info.bytes) / double(leafVoxels)) << " bytes per leaf voxel)";
    if (info.refinementError) out << "\nrefined     until the level set is within " << number(*info.refinementError) << " world units";
    out << "\ndepth           tiles       leaf voxels\n";
    writeDepths(out, info);
    for (PropertyInfo const& property : info.properties)
        out << "property    " << printableName(property.name) << " (" << property.type << "), default " << property.defaultValue
            << ", from " << property.min << " to " << property.max << "\n";
    if (info.levelSet) {
        LevelSetInfo const& set = *info.levelSet;
        out << "surface     from " << set.boundsMin << " to " << set.boundsMax << "\n";
        out << "            volume " << number(set.volume) << ", area " << number(set.area) << "\n";
        if (set.finestVoxel > 0) {
            out << "            in leaf voxels of " << number(set.finestVoxel);
            if (set.coarsestVoxel > set.finestVoxel) out << " to " << number(set.coarsestVoxel);
            out << "\n";
        }
    }
    return out.str();
}

}  // namespace tilegrid::io
