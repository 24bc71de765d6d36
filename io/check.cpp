#include "io/check.h"

#include "TilegridOps/algorithms/consistent_values.h"
#include "TilegridOps/substrate/child_values.h"
#include "TilegridOps/substrate/dependent_values.h"
#include "TilegridOps/substrate/grading.h"
#include "io/gradient_check.h"
#include "io/plain_channel.h"
#include "io/volume_access.h"

#include <sstream>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

/// Rounding of a mean or of eight products, against the largest value around; some 10 times what floats lose there.
constexpr double kRounding = 1e-5;

template <class T> bool sameBits(T const& a, T const& b) { return std::memcmp(&a, &b, sizeof(T)) == 0; }

/// Largest difference of a component: 0 for two NaN, infinite for one.
template <class T> double difference(T const& a, T const& b)
{
    using Traits = Ostara::Math::ElementTraits<T>;
    double largest = 0.0;
    for (int c = 0; c < Traits::components; ++c) {
        const auto x = Traits::at(a, c), y = Traits::at(b, c);
        if (x == y || (x != x && y != y)) continue;
        const double apart = std::abs(double(x) - double(y));
        largest = std::max(largest, apart == apart ? apart : std::numeric_limits<double>::infinity());
    }
    return largest;
}
template <class T> double largestComponent(T const* values, int count)
{
    using Traits = Ostara::Math::ElementTraits<T>;
    double largest = 0.0;
    for (int n = 0; n < count; ++n)
        for (int c = 0; c < Traits::components; ++c) {
            const double size = std::abs(double(Traits::at(values[n], c)));
            if (std::isfinite(size)) largest = std::max(largest, size);
        }
    return largest;
}

/// Compares the voxels of a tile that `counts(flat)` chooses. Those beyond the bound for which `excused(flat)` holds are not wrong.
template <class Tr, class T, class Counts, class Excused>
void compareTile(T const* is, T const* wanted, double bound, Counts const& counts, Excused const& excused, DependentCheck& check)
{
    const double rounding = kRounding * std::max(largestComponent(is, Tr::voxelCount), largestComponent(wanted, Tr::voxelCount));
    for (int flat = 0; flat < Tr::voxelCount; ++flat) {
        if (!counts(flat)) continue;
        ++check.voxels;
        if (sameBits(is[flat], wanted[flat])) continue;
        const double apart = difference(is[flat], wanted[flat]);
        // A negative bound asks for equal bits; zeros of two signs and NaN of two kinds still count as equal.
        if (!(bound < 0.0 ? apart > 0.0 : apart > bound + rounding) || excused(flat)) continue;
        ++check.wrong;
        check.largest = std::max(check.largest, apart);
    }
}

template <class Tr, class T>
DependentCheck checkAboveChildren(Container<Tr> const& tree, VoxelOffsetType offset, PlainChannel<Tr, T> const& channel)
{
    DependentCheck check;
    PlainChannel<Tr, T> wanted(channel);
    // Coarse depths first, so that each is compared with the values that its children have now.
    for (int depth = 0; depth < Tr::maxDepth; ++depth) {
        if (tree.tileCount(depth) == 0 || depth < channel.minDepth() || depth + 1 > channel.depth()) continue;
        setNonLeafValueToChildValue(wanted, tree, offset, depth, depth);
        for (OST::int64 n = 0; n < tree.tileCount(depth); ++n) {
            auto const& tile = tree.tile(n, depth);
            if (tile.isLeaf()) continue;
            const auto hasChild = [&tile](int flat) {
                const int3 ijk = cubeIndex(Tr::width, flat);
                return !tile.isLeaf(tile.voxelChildIJK(ijk.x, ijk.y, ijk.z));
            };
            compareTile<Tr, T>(channel.tileData(n, depth).data(), std::as_const(wanted).tileData(n, depth).data(),
                               offset == kCorner ? -1.0 : 0.0, hasChild, [](int) { return false; }, check);
        }
    }
    return check;
}

/// Whether the samples above that a voxel lies between may lie beyond tile space, where every field is the default value and
/// interpolation means nothing.
template <class Tr> bool touchesHighBorder(typename Container<Tr>::Tile const& tile, int flat)
{
    const int3 ijk = cubeIndex(Tr::width, flat);
    bool touches = false;
    for (int axis = 0; axis < 3; ++axis)
        touches = touches
            || OST::int64(tile.tijk()[axis]) + OST::int64(ijk[axis]) * tile.voxelDataWidth() + tile.parentVoxelDataWidth()
                > Tr::rangeMax;
    return touches;
}

/// Whether a hanging voxel differs from the voxels beside it in its tile that do not hang by no more than they lie apart, as
/// distances do. There is one: a step inwards along each axis on which the voxel lies on a low face.
/// \param width  of a voxel, in the unit of the values
template <class Tr, class Flags> bool holdsDistance(float const* values, Flags const& flags, int flat, double width)
{
    const int3 at = cubeIndex(Tr::width, flat);
    for (int n = 0; n < 27; ++n) {
        const int3 step = cubeIndex(3, n) - int3(1), beside = at + step;
        if (std::min({beside.x, beside.y, beside.z}) < 0 || std::max({beside.x, beside.y, beside.z}) >= Tr::width) continue;
        const int other = flatIndex(Tr::width, beside.x, beside.y, beside.z);
        if (flags(other) & kDofHanging) continue;
        const double way = width * std::sqrt(double(step.x * step.x + step.y * step.y + step.z * step.z));
        const double rounding = kRounding * std::max(std::abs(double(values[flat])), std::abs(double(values[other])));
        if (!(std::abs(double(values[flat]) - double(values[other])) <= way + rounding)) return false;
    }
    return true;
}

/// \param slope  in value per world unit, up to which the values may differ from a linear function; 0 if they must not
template <class Tr, class T>
DependentCheck checkHanging(Container<Tr> const& tree, DofChannel<Tr> const& dofs, PlainChannel<Tr, T> const& channel, double slope)
{
    DependentCheck check;
    PlainChannel<Tr, T> wanted(channel);
    // Fine depths first, so that each is interpolated from the values that the depth above it has now.
    for (int depth = Tr::maxDepth; depth > 0; --depth) {
        if (tree.tileCount(depth) == 0 || depth < channel.minDepth() || depth > channel.depth()) continue;
        setNonDOFValues(depth, depth, tree, wanted, dofs, /*mode*/ 0);
        const double bound = slope * std::sqrt(0.5) * tree.voxelSize() * Tr::voxelDataWidth(depth - 1);
        for (OST::int64 n = 0; n < tree.tileCount(depth); ++n) {
            auto const& tile = tree.tile(n, depth);
            const auto flags = dofs.tileData(n, depth);
            const auto hangs = [&](int flat) { return (flags(flat) & (kDofHanging | kDofKeep)) == kDofHanging && !touchesHighBorder<Tr>(tile, flat); };
            T const* values = channel.tileData(n, depth).data();
            const auto excused = [&](int flat) {
                if constexpr (std::is_same_v<T, float>)
                    return slope > 0.0 && holdsDistance<Tr>(values, flags, flat, slope * tree.voxelSize() * tile.voxelDataWidth());
                return false;
            };
            compareTile<Tr, T>(values, std::as_const(wanted).tileData(n, depth).data(), bound, hangs, excused, check);
        }
    }
    return check;
}

template <class Tr> std::string placeOf(typename Container<Tr>::Tile const& tile)
{
    std::ostringstream text;
    text << "the tile of depth " << tile.depth() << " at " << tile.tijk();
    return text.str();
}

/// Whether a channel has values for the tiles of its depths, and the topology for all.
template <class Tr>
void checkSizes(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const& topology,
                std::vector<std::string>& wrong)
{
    for (int depth = 0; depth <= Tr::maxDepth; ++depth) {
        const OST::int64 tiles = tree.tileCount(depth);
        const std::string instead = " of depth " + std::to_string(depth) + " instead of " + std::to_string(tiles);
        if (topology.tileCount(depth) != tiles)
            wrong.push_back("the topology counts " + std::to_string(topology.tileCount(depth)) + " tiles" + instead);
        for (std::string const& name : propertyNames<Tr>(native)) {
            const auto channel = native.component<VoxelChannelCore>(Corvid::String(name));
            if (channel && depth >= channel->minDepth() && depth <= channel->depth() && channel->tileCount(depth) != tiles)
                wrong.push_back("property '" + name + "' has " + std::to_string(channel->tileCount(depth)) + " tiles" + instead);
        }
    }
}

template <class Tr> class PropertyChecker {
public:
    PropertyChecker(OST::Object const& native, Container<Tr> const& tree, VoxelOffsetType offset)
        : native_(native), tree_(tree), offset_(offset)
    {}

    std::vector<PropertyCheck> run(bool hanging)
    {
        if (hanging && offset_ == kCorner) {
            const short none = 0;
            dofs_.emplace(Corvid::String(), &none, kInitializeNone, false, true, 0, Tr::maxDepth);
            dofs_->updateTilesAdded(tree_);
            computeDofs(tree_, *dofs_);
            keepFarHanging(tree_, *dofs_);
        }
        std::vector<PropertyCheck> checks;
        for (std::string const& name : propertyNames<Tr>(native_))
            tryElements<Tr>(native_, Corvid::String(name), [&]<class C>() {
                const auto channel = native_.component<C>(Corvid::String(name));
                if constexpr (std::is_same_v<C, PlainChannel<Tr, typename C::Element>>)
                    checks.push_back(check(name, *channel));
                else
                    checks.push_back(check(name, plainCopy<Tr>(tree_, *channel)));
            });
        return checks;
    }

private:
    template <class T> PropertyCheck check(std::string const& name, PlainChannel<Tr, T> const& channel) const
    {
        PropertyCheck result{name, checkAboveChildren<Tr, T>(tree_, offset_, channel), {}};
        if constexpr (canInterpolate<T>)
            if (dofs_) {
                const bool distance = name == Ostara::Geometry::sVoxelSignedDistance.str();
                result.hanging = checkHanging<Tr, T>(tree_, *dofs_, channel, distance ? 1.0 : 0.0);
            }
        return result;
    }

    OST::Object const& native_;
    Container<Tr> const& tree_;
    VoxelOffsetType offset_;
    std::optional<DofChannel<Tr>> dofs_;
};

/// None without a signed distance.
template <class Tr> std::optional<std::vector<GradientCheck>> gradientOf(OST::Object const& native, Container<Tr> const& tree)
{
    std::optional<std::vector<GradientCheck>> checks;
    const auto measure = [&]<class C>() {
        checks = measureGradient<Tr>(tree, plainCopy<Tr>(tree, *native.component<C>(Ostara::Geometry::sVoxelSignedDistance)));
    };
    tryLayouts<Tr, float>(native, Ostara::Geometry::sVoxelSignedDistance, measure);
    return checks;
}

}  // namespace

SlopeReport measureSlope(Ostara::Object const& volume)
{
    return withTree(volume, []<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const&) {
        auto checks = gradientOf<Tr>(native, tree);
        if (!checks) throw InputError("the volume has no signed distance");
        return SlopeReport{std::move(*checks)};
    });
}

std::vector<PropertyCheck> checkValuesAboveChildren(Ostara::Object const& volume)
{
    return withTree(
        volume, [&]<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const& topology) {
            return PropertyChecker<Tr>(native, tree, topology.offsetType()).run(/*hanging*/ false);
        });
}

VolumeCheck checkVolume(Ostara::Object const& volume, GradingRule rule)
{
    return withTree(
        volume, [&]<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const& topology) {
            VolumeCheck check;
            check.rule = rule;
            check.tiles = tree.tileCount(-1);
            check.tree = checkTree(tree);
            checkSizes(native, tree, topology, check.tree);
            if (!check.tree.empty()) return check;
            if (const auto fault = CoreGL::TileTree3D::findGradingFault(tree, 0, Tr::maxDepth)) {
                check.graded = false;
                check.gradingFault = placeOf<Tr>(tree.tile(fault->tile)) + " and " + placeOf<Tr>(tree.tile(fault->neighbor));
            }
            check.properties = PropertyChecker<Tr>(native, tree, topology.offsetType()).run(/*hanging*/ true);
            check.gradient = gradientOf<Tr>(native, tree).value_or(std::vector<GradientCheck>());
            return check;
        });
}

}  // namespace tilegrid::io
