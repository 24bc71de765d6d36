#include "TilegridOps/algorithms/resample.h"

#include "TilegridOps/algorithms/affine_map.h"
#include "TilegridOps/algorithms/field_reader.h"
#include "TilegridOps/algorithms/level_set_parts.h"
#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/commands.h"
#include "TilegridOps/substrate/grading.h"
#include "TilegridOps/substrate/memory_budget.h"
#include "TilegridOps/substrate/parallel.h"
#include "TilegridOps/substrate/traversal.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace tilegrid {

namespace {

using namespace OST::TileTree3D;
using namespace Ostara::Math;
using OST::int64;
using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelSignedDistance;
using Ostara::Geometry::sVoxelTileTree;

/// The types that are carried over, in the order in which they are looked for.
template <class F> bool anyRealType(F f)
{
    return [&]<class... Ts>(std::type_identity<std::tuple<Ts...>>) { return (f.template operator()<Ts>() || ...); }(
               std::type_identity<std::tuple<float, float2, float3, float4, float3x3, float4x2, float4x4, double, double3>>());
}

/// How often a length can be multiplied by B without passing `ratio`; rounding does not count.
template <class Tr> int levelsWithin(double ratio)
{
    constexpr double kRounding = 1e-6;
    int levels = 0;
    for (double length = Tr::branching; levels < Tr::maxDepth && length <= ratio * (1 + kRounding); length *= Tr::branching) ++levels;
    return levels;
}

/// What the map does to lengths, and where target voxels lie in the source.
struct Placement {
    AffineMap toTarget, toSource;
    double scale = 1;
    double sourceVoxel = 1, targetVoxel = 1;

    /// From the tile space of the target to that of the source.
    AffineMap targetToSource() const { return toSource.inUnits(targetVoxel, sourceVoxel); }
    AffineMap sourceToTarget() const { return toTarget.inUnits(sourceVoxel, targetVoxel); }
};

/// Adds the tiles of a new volume: for each tile of the source the box around its image.
template <class From, class To> void growImage(Container<From> const& source, Placement const& placement, Container<To>& target)
{
    const AffineMap map = placement.sourceToTarget();
    // Images that end on the border of a tile do not reach into the next one.
    constexpr double kRounding = 1e-6;
    const auto addImage = [&](int64 begin, int64 end, Container<To>& collected) {
        auto accessor = collected.tileAccessor();
        for (int64 n = begin; n < end; ++n) {
            auto const& tile = source.tile(n);
            double3 low(std::numeric_limits<double>::max()), high(std::numeric_limits<double>::lowest());
            for (int corner = 0; corner < 8; ++corner) {
                const double3 at = double3(tile.tijk()) + double(tile.tileVoxelWidth()) * double3(int3(corner & 1, corner >> 1 & 1, corner >> 2));
                const double3 image = map(at);
                for (int axis = 0; axis < 3; ++axis) low[axis] = std::min(low[axis], image[axis]), high[axis] = std::max(high[axis], image[axis]);
            }
            int3 first, last;
            bool inside = true;
            for (int axis = 0; axis < 3; ++axis) {
                const double a = std::floor(low[axis] + kRounding), b = std::ceil(high[axis] - kRounding) - 1;
                inside &= a <= double(To::rangeMax) && b >= double(To::rangeMin);
                first[axis] = int(std::clamp(a, double(To::rangeMin), double(To::rangeMax)));
                last[axis] = int(std::clamp(b, double(To::rangeMin), double(To::rangeMax)));
            }
            const double ratio = double(tile.voxelDataWidth()) * placement.sourceVoxel * placement.scale / placement.targetVoxel;
            if (inside) accessor.addTiles(first, last, To::maxDepth - levelsWithin<To>(ratio));
        }
    };
    constexpr std::size_t kGrain = 512;
    target.template refine<decltype(addImage), int64>(addImage, 0, source.tileCount(-1), kGrain, nullptr);
}

/// What is asked for, and where from.
struct Request {
    OST::Object const& source;
    Placement placement;
    InterpolationMode interpolation;
    int sourceLevels;
    /// Voxel width of the source's depth in tile space; a smaller depth than 0 has none.
    int (*sourceWidth)(int depth);

    /// The coarsest depth of the source whose voxels, moved, are no larger than those of the target.
    int sourceDepth(double targetWidth) const
    {
        constexpr double kRounding = 1e-6;
        const double wanted = targetWidth * placement.targetVoxel / placement.scale * (1 + kRounding);
        int depth = 0;
        while (depth < sourceLevels - 1 && double(sourceWidth(depth)) * placement.sourceVoxel > wanted) ++depth;
        return depth;
    }
};

/// Whether target voxels lie where source voxels of the same width lie.
bool isIdentity(AffineMap const& map)
{
    bool same = true;
    for (int row = 0; row < 3; ++row)
        for (int column = 0; column < 3; ++column) same &= map.m[row][column] == (row == column) && map.t[column] == 0;
    return same;
}

/// Writes all voxels of a channel: those of a tile by `copied(tile, values)`, where that says true, and else from the reader.
template <class To, class T, class Copied>
void readInto(Container<To> const& tree, float3 const& offset, Request const& request, FieldReader<T> const& prototype, double factor,
              Copied const& copied, Channel<To, T, To::width, 0>& channel)
{
    using Scalar = typename ElementTraits<T>::Scalar;
    constexpr int64 kTiles = 64;
    const AffineMap map = request.placement.targetToSource();
    for (int depth = 0; depth <= To::maxDepth; ++depth) {
        if (tree.tileCount(depth) == 0) continue;
        const double width = To::voxelDataWidth(depth);
        const int limit = request.sourceDepth(width);
        parallel::forRanges(0, tree.tileCount(depth), kTiles, [&](int64 begin, int64 end) {
            const auto reader = prototype.copy();
            float3 places[To::voxelCount];
            for (int64 n = begin; n < end; ++n) {
                T* values = channel.tileData(n, depth).data();
                if (!copied(tree.tile(n, depth), values)) {
                    const double3 first = map(double3(tree.tile(n, depth).tijk()) + width * double3(offset));
                    for (int v = 0; v < To::voxelCount; ++v) {
                        const int3 at = cubeIndex(To::width, v);
                        places[v] = float3(first + ((width * at.x) * map.step(0) + (width * at.y) * map.step(1)) + (width * at.z) * map.step(2));
                    }
                    reader->read(places, To::voxelCount, limit, values);
                }
                if (factor != 1)
                    for (int v = 0; v < To::voxelCount; ++v) values[v] = Scalar(factor) * values[v];
            }
        });
        parallel::endStage();
    }
}

/// Distances of a surface that was moved. In a tree that is not graded what lies between coarse samples says less of a hanging voxel
/// than what was read there: nothing counts as hanging then.
template <class To> void redistanceImage(Container<To> const& tree, VoxelTopology<To> const& topology, Channel<To, float, To::width, 0>& levelSet)
{
    Corvid::String const timer = "Volume::resample.redistance";
    if (!CoreGL::TileTree3D::findGradingFault(tree, 0, To::maxDepth)) return redistanceAll<To>(tree, topology, levelSet, dofsOf<To>(tree, topology), timer);
    VolumeGL::TileTree3D::LevelSet::levelSetRedistance<To>(tree, topology, levelSet, /*resetFar*/ true, /*resetCrossing*/ true, /*keepSigns*/ true, 0,
                                                           To::maxDepth, nullptr, nullptr, 1.0f, FLT_MAX, FLT_MAX, 10, 10, /*restoreDependents*/ false,
                                                           /*unsignedResult*/ false, nullptr, timer,
                                                           VolumeGL::TileTree3D::LevelSet::RedistancingScheme::kClosestPoint);
}

/// The property as a channel for the target's tiles; null if the source has none of that name and type.
template <class From, class To, class T>
Corvid::MutablePtr<OST::Component> carried(Container<To> const& tree, VoxelTopology<To> const& topology, Request const& request,
                                           Corvid::String const& name)
{
    const auto channel = request.source.component<Channel<From, T, From::width, 0>>(name);
    if (!channel) return {};
    const auto reader = makeFieldReader<From, T>(request.source, name, request.interpolation);
    if (!reader) return {};
    using Scalar = typename ElementTraits<T>::Scalar;
    const bool distances = name == sVoxelSignedDistance;
    const double factor = distances ? request.placement.scale : 1;
    const T outside = Scalar(factor) * channel->defaultValue();
    auto made = Corvid::makeMutable<Channel<To, T, To::width, 0>>(name, &outside, channel->dataElementInitializerType(), /*poolBacked*/ false,
                                                                  /*callElementConstructor*/ false, 0, To::maxDepth);
    made->updateTilesAdded(tree);
    // Places are floats, and counted in inexact inverse widths: a copy is what keeps all bits.
    [[maybe_unused]] const auto sourceTree = request.source.component<Container<From>>(sVoxelTileTree);
    const auto sourceOffset = request.source.component<VoxelTopology<From>>(sVoxelComp)->offset();
    const bool inPlace = std::is_same_v<From, To> && sourceOffset == topology.offset() && isIdentity(request.placement.targetToSource());
    const auto copied = [&](typename Container<To>::Tile const& tile, T* values) {
        if constexpr (std::is_same_v<From, To>) {
            if (!inPlace) return false;
            const int3 at = tile.tijk();
            const TreeIndex there = sourceTree->find(at.x, at.y, at.z, tile.depth());
            if (there.depth != tile.depth() || !channel->tileData(there)) return false;
            std::copy_n(channel->tileData(there).data(), To::voxelCount, values);
            return true;
        } else {
            return false;
        }
    };
    readInto<To, T>(tree, topology.offset(), request, *reader, factor, copied, *made);
    if constexpr (std::is_same_v<T, float>)
        if (distances && !request.placement.toTarget.isSimilarity())
            redistanceImage<To>(tree, topology, *made);
    return made;
}

template <class From, class To>
std::vector<Corvid::MutablePtr<OST::Component>> carriedProperties(Container<To> const& tree, VoxelTopology<To> const& topology,
                                                                  Request const& request, Corvid::Array<Corvid::String> const& names)
{
    std::vector<Corvid::MutablePtr<OST::Component>> channels;
    for (Corvid::String const& name : names)
        anyRealType([&]<class T>() {
            if (!request.source.component<Channel<From, T, From::width, 0>>(name)) return false;
            channels.push_back(carried<From, To, T>(tree, topology, request, name));
            return true;
        });
    return channels;
}

/// The names that are asked for and that the source has in a type that is carried over.
template <class From> Corvid::Array<Corvid::String> wantedNames(OST::Object const& source, Corvid::String const& property)
{
    Corvid::Array<Corvid::String> names;
    for (Corvid::String const& name : source.componentRange())
        if ((property.empty() || name == property) &&
            anyRealType([&]<class T>() { return source.hasComponentFromName<Channel<From, T, From::width, 0>>(name); }))
            names.push_back(name);
    return names;
}

/// Into a volume with a tree, if the target is one of this structure.
template <class From, class To>
bool intoTarget(Request request, Corvid::Array<Corvid::String> const& names, Corvid::Ptr<Ostara::Object>& target)
{
    if (!target || !target->native() || !Ostara::Object::isA(*target, *Ostara::Geometry::getVolumePrototype())) return false;
    const auto tree = target->native()->component<Container<To>>(sVoxelTileTree);
    const auto topology = target->native()->component<VoxelTopology<To>>(sVoxelComp);
    if (!tree || !topology) return false;
    request.placement.targetVoxel = double(tree->voxelSize());
    auto channels = carriedProperties<From, To>(*tree, *topology, request, names);
    auto native = Ostara::Geometry::move_object_to_ost_volume(*Corvid::toMutable(target));
    for (auto& channel : channels) native->putComponent(std::move(channel));
    target = Ostara::Geometry::move_ost_volume_to_object(*native);
    return true;
}

double bytesPerVoxel(OST::Object const& source, Corvid::Array<Corvid::String> const& names)
{
    double bytes = 0;
    for (Corvid::String const& name : names)
        if (const auto channel = source.component<ChannelBase>(name)) bytes += double(channel->elementBytes());
    return bytes;
}

template <class From, class To>
void intoNewVolume(Request request, float voxelSize, Corvid::Array<Corvid::String> const& names, Container<From> const& source,
                   Corvid::Ptr<Ostara::Object>& target)
{
    if (!(voxelSize > std::numeric_limits<float>::epsilon()) || !std::isfinite(voxelSize))
        voxelSize = float(request.placement.sourceVoxel * request.placement.scale);
    request.placement.targetVoxel = double(voxelSize);
    auto native = Command::createVoxelOST<To>(sVoxelTileTree, sVoxelComp, voxelSize, kCorner);
    auto tree = native->template extractComponent<Container<To>>(sVoxelTileTree);
    auto topology = native->template extractComponent<VoxelTopology<To>>(sVoxelComp);
    {
        const TileBudget<To> budget(*tree, tileRecordBytes<To>() + To::voxelCount * bytesPerVoxel(request.source, names));
        growImage(source, request.placement, *tree);
    }
    tree->setMaxRelativeRefinementError(source.maxRelativeRefinementError());
    topology->update(*tree);
    for (auto& channel : carriedProperties<From, To>(*tree, *topology, request, names)) native->putComponent(std::move(channel));
    native->putComponent(std::move(topology));
    native->putComponent(std::move(tree));
    target = Ostara::Geometry::move_ost_volume_to_object(*native);
}

template <class From>
bool resampleFrom(Request& request, Corvid::String const& property, float voxelSize, int structure, Corvid::Ptr<Ostara::Object>& target,
                  CoreGL::CorvidLogger const& logger)
{
    const auto source = request.source.component<Container<From>>(sVoxelTileTree);
    const auto names = wantedNames<From>(request.source, property);
    if (!request.source.hasComponentFromName<VoxelTopology<From>>(sVoxelComp) || (names.empty() && !property.empty())) {
        logger.error("Resample property not found.");
        return false;
    }
    request.placement.sourceVoxel = double(source->voxelSize());
    request.sourceLevels = From::levels;
    request.sourceWidth = [](int depth) { return int(From::voxelDataWidth(depth)); };
    if (!(request.placement.sourceVoxel > 0) || !std::isfinite(request.placement.sourceVoxel)) {
        logger.error("Resample source has no voxel size.");
        return false;
    }
    if (intoTarget<From, BinaryTraits>(request, names, target) || intoTarget<From, QuinaryTraits>(request, names, target)) return true;
    // The numbers of kBinary and kQuinary.
    if (structure == 1 || (structure != 2 && From::branching == 2))
        intoNewVolume<From, BinaryTraits>(request, voxelSize, names, *source, target);
    else
        intoNewVolume<From, QuinaryTraits>(request, voxelSize, names, *source, target);
    return true;
}

}  // namespace

}  // namespace tilegrid

template <class Logger>
bool VolumeGL::TileTree3D::resample(Corvid::String const& property, Ostara::Math::float4x4 const& transform, float voxelSize,
                                    Geometry::Volume::AutoSubdivisionStructure structure, OST::TileTree3D::InterpolationMode interpolation,
                                    Ostara::Object const& source, Corvid::Ptr<Ostara::Object>& target, Logger const& logger)
{
    using namespace tilegrid;
    const AffineMap map(transform);
    const auto inverse = map.inverse();
    if (!inverse) {
        logger.error("Resample transform is not invertible.");
        return false;
    }
    // A view: the target may be the same object, and change.
    const auto view = Ostara::Geometry::shallow_copy_object_to_ost_volume(source);
    const bool binary = view && view->template hasComponentFromName<Container<BinaryTraits>>(sVoxelTileTree);
    if (!binary && !(view && view->template hasComponentFromName<Container<QuinaryTraits>>(sVoxelTileTree))) {
        logger.error("Resample property not found.");
        return false;
    }
    Request request{*view, {map, *inverse, std::cbrt(std::abs(map.determinant()))}, interpolation, 0, nullptr};
    return binary ? resampleFrom<BinaryTraits>(request, property, voxelSize, int(structure), target, logger)
                  : resampleFrom<QuinaryTraits>(request, property, voxelSize, int(structure), target, logger);
}

template TILEGRID_API bool VolumeGL::TileTree3D::resample(Corvid::String const&, Ostara::Math::float4x4 const&, float,
                                                          Geometry::Volume::AutoSubdivisionStructure, OST::TileTree3D::InterpolationMode,
                                                          Ostara::Object const&, Corvid::Ptr<Ostara::Object>&, CoreGL::CorvidLogger const&);
