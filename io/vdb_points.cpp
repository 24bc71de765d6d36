#include "io/vdb_points.h"

#include "TilegridOps/host/geometry.h"
#include "io/attribute.h"
#include "io/error.h"
#include "io/points_table.h"

#include <openvdb/points/PointConversion.h>

#include <cmath>

namespace tilegrid::io {

using Ostara::Geometry::sPointPosition;
using Ostara::Math::float3;

namespace {

namespace points = openvdb::points;
using PointTree = points::PointDataTree;

/// Appends the values of an attribute in the order of the voxels.
template <class V, class T, class Convert> void collect(PointTree const& tree, std::string const& name, Corvid::Array<T>& out, Convert convert)
{
    for (auto leaf = tree.cbeginLeaf(); leaf; ++leaf) {
        const points::AttributeHandle<V> handle(leaf->constAttributeArray(name));
        for (auto index = leaf->beginIndexOn(); index; ++index) out.push_back(convert(handle.get(*index), index.getCoord()));
    }
}

/// Voxels that hold a handful of points where these lie evenly.
double voxelSizeFor(Corvid::Array<float3> const& positions)
{
    constexpr double kPointsPerVoxel = 8;
    Ostara::Math::bbox<float3, float> box;
    for (float3 const& p : positions) {
        if (!std::isfinite(p.x + p.y + p.z)) throw InputError("a point has a position that is not finite");
        box.add(p);
    }
    if (positions.empty()) return 1;
    double volume = 1, longest = 0;
    for (int axis = 0; axis < 3; ++axis) longest = std::max(longest, double(box.max[axis]) - double(box.min[axis]));
    if (!(longest > 0)) return 1;
    // Points on a plane or line fill less than their box.
    for (int axis = 0; axis < 3; ++axis) volume *= std::max((double(box.max[axis]) - double(box.min[axis])) / longest, 1e-2);
    return longest * std::cbrt(volume * kPointsPerVoxel / double(positions.size()));
}

template <class V, class T, class Convert>
void append(PointTree& tree, openvdb::tools::PointIndexTree const& index, std::string const& name, Corvid::Array<T> const& values, Convert convert)
{
    std::vector<V> converted;
    for (T const& value : values) converted.push_back(convert(value));
    points::appendAttribute<V>(tree, name);
    const points::PointAttributeVector<V> wrapped(converted);
    points::populateAttribute<PointTree, openvdb::tools::PointIndexTree, points::PointAttributeVector<V>>(tree, index, name, wrapped);
}

openvdb::Vec3f toVec(float3 const& v) { return {v.x, v.y, v.z}; }

}  // namespace

bool isPointGrid(openvdb::GridBase const& grid) { return grid.isType<points::PointDataGrid>(); }

Corvid::Ptr<Ostara::Object> pointsFromGrid(openvdb::GridBase const& base, Corvid::RuntimeServices const& services)
{
    auto const& grid = static_cast<points::PointDataGrid const&>(base);
    auto const& tree = grid.constTree();
    auto result = Corvid::makeMutable<Ostara::Object>(Ostara::Geometry::getPointCloudPrototype());
    Corvid::Array<float3> positions;
    const auto place = [&grid](openvdb::Vec3f const& inVoxel, openvdb::Coord const& voxel) {
        const openvdb::Vec3d p = grid.transform().indexToWorld(voxel.asVec3d() + openvdb::Vec3d(inVoxel));
        return float3(float(p.x()), float(p.y()), float(p.z()));
    };
    const auto first = tree.cbeginLeaf();
    if (first) collect<openvdb::Vec3f>(tree, "P", positions, place);
    result->set(sPointPosition, positions);
    if (!first) return result;
    for (auto const& [name, position] : first->attributeSet().descriptor().map()) {
        const openvdb::Name type = first->attributeSet().descriptor().valueType(position);
        if (name == "P") continue;
        const bool radius = name == "pscale" || name == "radius";
        if (type == openvdb::typeNameAsString<float>()) {
            Corvid::Array<float> values;
            collect<float>(tree, name, values, [](float value, openvdb::Coord const&) { return value; });
            result->set(Corvid::String(radius ? "point_radius" : name), values);
        } else if (type == openvdb::typeNameAsString<openvdb::Vec3f>()) {
            Corvid::Array<float3> values;
            collect<openvdb::Vec3f>(tree, name, values, [](openvdb::Vec3f const& v, openvdb::Coord const&) { return float3(v.x(), v.y(), v.z()); });
            // What other programs call a colour, linear as ours.
            const bool color = name == "Cd" && first->attributeSet().find(kColor) == points::AttributeSet::INVALID_POS;
            result->set(Corvid::String(color ? kColor : name), values);
        } else if (!first->attributeSet().descriptor().hasGroup(name)) {
            services.message(Severity::kWarning, "attribute '" + name + "' of grid '" + grid.getName() + "' is left out: nothing reads the type " + type);
        }
    }
    return result;
}

openvdb::GridBase::Ptr gridFromPoints(Ostara::Object const& object, Corvid::RuntimeServices const& services)
{
    // Checks lengths and names what is left out.
    tableOf(object, services);
    auto const& positions = *object.get<Corvid::Array<float3>>(sPointPosition);
    const auto transform = openvdb::math::Transform::createLinearTransform(voxelSizeFor(positions));
    std::vector<openvdb::Vec3f> places;
    for (float3 const& p : positions) places.push_back(toVec(p));
    const points::PointAttributeVector<openvdb::Vec3f> wrapped(places);
    const auto index = openvdb::tools::createPointIndexGrid<openvdb::tools::PointIndexGrid>(wrapped, *transform);
    const auto grid = points::createPointDataGrid<points::NullCodec, points::PointDataGrid>(*index, wrapped, *transform);
    grid->setName("points");
    for (auto const& [name, entry] : object.entries()) {
        if (auto const* scalars = entry.get<Corvid::Array<float>>())
            append<float>(grid->tree(), index->tree(), name.str(), *scalars, [](float v) { return v; });
        else if (auto const* vectors = entry.get<Corvid::Array<float3>>(); vectors && name != sPointPosition)
            append<openvdb::Vec3f>(grid->tree(), index->tree(), name.str(), *vectors, toVec);
    }
    return grid;
}

}  // namespace tilegrid::io
