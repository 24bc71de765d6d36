#include "TilegridOps/sampling/cubic_query.h"

#include <iostream>

namespace OST::TileTree3D {

namespace {

template <class T> bool isNan(T const& value)
{
    using Element = Ostara::Math::ElementTraits<T>;
    for (int c = 0; c < Element::components; ++c)
        if (Element::at(value, c) != Element::at(value, c)) return true;
    return false;
}

int3 moved(int3 place, int axis, std::int32_t to)
{
    place[axis] = to;
    return place;
}

/// From the low corner of a voxel to a place in it, in voxels, but 0 along one axis.
float3 fractionIn(int3 const& corner, std::int32_t width, int3 const& place, int zeroAxis)
{
    float3 fraction;
    for (int axis = 0; axis < 3; ++axis)
        fraction[axis] = axis == zeroAxis ? 0.0f : static_cast<float>(double(int64(place[axis]) - corner[axis]) / double(width));
    return fraction;
}

template <class TileT> int3 voxelIn(TileT const& tile, int3 const& place)
{
    const std::int32_t width = tile.voxelDataWidth();
    const int3 low = tile.tijk();
    return {(place.x - low.x) / width, (place.y - low.y) / width, (place.z - low.z) / width};
}

int64 floorDiv(int64 n, int64 d)
{
    return n >= 0 ? n / d : -((d - 1 - n) / d);
}

}  // namespace

template <class Tr, class T>
CubicQuery<Tr, T>::CubicQuery(Sampler const& sampler, TreeIndex const& ti, int3 const& lijk, float3 const& frac, int depthLimit,
                              bool flag)
    : s_(sampler), accessor_(sampler.accessor()), ti_(ti), tile_(sampler.container().tile(ti)), lijk_(lijk), frac_(frac),
      depthLimit_(depthLimit), flag_(flag), vdw_(tile_.voxelDataWidth()), tvw_(tile_.tileVoxelWidth()),
      tijk_(tile_.tijk() + vdw_ * lijk)
{
}

template <class Tr, class T> T CubicQuery<Tr, T>::value()
{
    int fractions = 0, axes = 0;
    for (int axis = 0; axis < 3; ++axis)
        if (frac_[axis] != 0.0f) {
            ++fractions;
            axes |= 1 << axis;
        }
    if (fractions > 0) {
        traceCubic("fetchTiles.begin()");
        near_.fetchTiles(accessor_, ti_, tile_.tijk(), lijk_, axes);
        traceCubic("fetchTiles.end()");
    }
    const T result = fractions == 0 ? onVoxel() : interpolated(fractions, axes);
    if (!isNan(result)) return result;
    nanInfo("voxelSamplerCubic: output is NAN", state());
    return T{};
}

template <class Tr, class T> T CubicQuery<Tr, T>::onVoxel() const
{
    if (lijk_.x < 0 || lijk_.y < 0 || lijk_.z < 0)
        return Sampler::getVoxelValueAtTijk(tijk_, ti_.depth, s_.offsetType_, *s_.channel_, accessor_);
    if (!s_.dofs_.meets(ti_, lijk_, s_.dofMask_)) return readVoxel(ti_, lijk_);
    const TreeIndex parent = tile_.parentTreeIndex();
    if (!parent.valid()) return s_.defaultValue_;
    Tile const& p = s_.container().tile(parent);
    const int3 plijk = voxelIn(p, tijk_);
    constexpr int kNoAxis = -1;
    const float3 pfrac = fractionIn(p.tijk() + p.voxelDataWidth() * plijk, p.voxelDataWidth(), tijk_, kNoAxis);
    return s_.getValue(parent, plijk, pfrac, depthLimit_, flag_);
}

template <class Tr, class T> T CubicQuery<Tr, T>::interpolated(int fractions, int axes)
{
    const int first = axes & 1 ? 0 : axes & 2 ? 1 : 2;
    T result{};
    if (fractions == 1)
        getValue1D(tijk_, first, result);
    else if (fractions == 2)
        getValue2D(tijk_, first, axes & 4 ? 2 : 1, result);
    else if (!near_.atResolutionJump() && ti_.depth == depthLimit_)
        result = s_.uniformValue(near_, lijk_, frac_);
    else
        getValue3D(tijk_, result);
    return result;
}

/// The finest tile, not deeper than the query's, that holds a place: from the neighbourhood where it is there.
template <class Tr, class T> auto CubicQuery<Tr, T>::getTile(int3 const& in_tijk) const -> Tile const&
{
    traceCubic("getTile:");
    int place = 0;
    bool near = true;
    for (int axis = 0; axis < 3; ++axis) {
        const int64 lti = floorDiv(int64(in_tijk[axis]) - tile_.tijk()[axis], tvw_) - near_.first()[axis];
        near = near && (lti == 0 || lti == 1);
        place |= static_cast<int>(lti & 1) << axis;
    }
    if (near && near_[place].valid()) {
        Tile const& tile = s_.container().tile(near_[place]);
        if (tile.contains(in_tijk)) return tile;
    }
    if (!TileNeighborhood<Tr>::inTileSpace(in_tijk)) return Container<Tr>::outsideTile();
    return accessor_.tileImpl(in_tijk.x, in_tijk.y, in_tijk.z, ti_.depth);
}

template <class Tr, class T> T CubicQuery<Tr, T>::readVoxel(TreeIndex const& tile, int3 const& voxel) const
{
    const auto data = s_.channel_->tileData(tile);
    return data ? data(voxel) : s_.defaultValue_;
}

/// The sample whose voxel holds a place on an axis.
/// \return whether it left the uniform level
template <class Tr, class T> bool CubicQuery<Tr, T>::getStencilValue(int3 const& in_tijk, int axis, StencilValue& io) const
{
    traceCubic("GETVALUE():");
    Tile const& tile = getTile(in_tijk);
    if (!tile.valid()) return getDefaultValue(axis, io);
    if (tile.depth() < ti_.depth) {
        traceCubic("case: tile.depth() < depth");
        return getCoarserValue(tile, in_tijk, axis, io);
    }
    const int3 lijk = voxelIn(tile, in_tijk), tlijk = tile.childIJK(in_tijk);
    if (!tile.isLeaf(tlijk) && tile.depth() < depthLimit_) {
        traceCubic("case: neighbor refined");
        Tile const& child = s_.container().tile(tile.childTreeIndex(tlijk));
        const int3 voxel = voxelIn(child, in_tijk);
        if (s_.dofs_.meets(child.treeIndex(), voxel, s_.dofMask_)) {
            traceCubic("case: dof is valid, branch 2");
            return getValueAtThisLevel(tile, lijk, in_tijk, axis, io);
        }
        io.value = readVoxel(child.treeIndex(), voxel);
        io.tsInc = child.voxelDataWidth();
        io.tsPos = child.tijk()[axis] + voxel[axis] * io.tsInc;
        io.position = relative(axis, io.tsPos);
        checkCase(4, io);
        return true;
    }
    traceCubic("isLeaf = true ");
    if (!s_.dofs_.meets(tile.treeIndex(), lijk, s_.dofMask_)) return getValueAtThisLevel(tile, lijk, in_tijk, axis, io);
    traceCubic("case: dof is valid, branch 1");
    const TreeIndex parent = tile.parentTreeIndex();
    return parent.valid() ? getCoarserValue(s_.container().tile(parent), in_tijk, axis, io) : getDefaultValue(axis, io);
}

/// Nothing there: the stencil goes on at its last spacing.
template <class Tr, class T> bool CubicQuery<Tr, T>::getDefaultValue(int axis, StencilValue& io) const
{
    io.value = s_.defaultValue_;
    io.tsPos += io.tsInc;
    io.position = relative(axis, io.tsPos);
    checkCase(2, io);
    return true;
}

template <class Tr, class T>
bool CubicQuery<Tr, T>::getCoarserValue(Tile const& tile, int3 const& in_tijk, int axis, StencilValue& io) const
{
    traceCubic("getCoarserValue.begin()");
    const std::int32_t width = tile.voxelDataWidth();
    const int3 lijk = voxelIn(tile, in_tijk), corner = tile.tijk() + width * lijk;
    io.tsPos = corner[axis];
    io.tsInc = width;
    io.position = relative(axis, io.tsPos);
    io.value = s_.getValue(tile.treeIndex(), lijk, fractionIn(corner, width, in_tijk, axis), depthLimit_, flag_);
    checkCase(1, io);
    traceCubic("getCoarserValue.end()");
    return true;
}

template <class Tr, class T>
bool CubicQuery<Tr, T>::getValueAtThisLevel(Tile const& tile, int3 const& lijk, int3 const& in_tijk, int axis, StencilValue& io) const
{
    const std::int32_t width = tile.voxelDataWidth();
    const int3 snapped = tile.tijk() + width * lijk;
    if (moved(snapped, axis, in_tijk[axis]) == in_tijk) {
        io.value = readVoxel(tile.treeIndex(), lijk);
    } else {
        traceCubic("calling recursively to fetch values");
        io.value = s_.getValue(tile.treeIndex(), lijk, fractionIn(snapped, width, in_tijk, axis), depthLimit_, flag_);
    }
    io.tsPos = snapped[axis];
    io.tsInc = width;
    io.position = relative(axis, io.tsPos);
    checkCase(3, io);
    return false;
}

template <class Tr, class T> void CubicQuery<Tr, T>::checkCase(int number, StencilValue& io) const
{
    if (!cubicDiagnostics().checks || !isNan(io.value)) return;
    std::cout << "getValue.case" << number << " = " << io.value << ", " << io.position << ", " << io.tsInc << ", " << io.tsPos << "\n";
    const std::string message = "getValue.case" + std::to_string(number) + " output is NAN";
    nanInfo(message.c_str(), state());
    io.value = T{};
}

/// Gathers four samples along an axis, two on either side of `x`, and interpolates.
/// \param start     place of the sample at or below x, before its voxel is known
/// \param sampleAt  (place, io) -> whether the sample whose voxel holds the place left the uniform level. `io` comes with
///                  position and spacing of the sample before it, in case that there is none
template <class Tr, class T> template <class SampleAt>
bool CubicQuery<Tr, T>::walk(std::int32_t start, float x, SampleAt const& sampleAt, T& out) const
{
    StencilValue f[4];
    bool jump[4];
    const auto next = [&](int n) {
        f[n].tsPos = f[n - 1].tsPos;
        f[n].tsInc = f[n - 1].tsInc;
        // A voxel that takes its value from above may begin below its place, at the sample before.
        do jump[n] = sampleAt(f[n].tsPos + f[n].tsInc, f[n]);
        while (f[n].tsPos <= f[n - 1].tsPos);
    };
    f[1].tsPos = start - vdw_;
    f[1].tsInc = vdw_;
    jump[1] = sampleAt(start, f[1]);
    f[0].tsPos = f[1].tsPos - 2 * f[1].tsInc;
    f[0].tsInc = f[1].tsInc;
    jump[0] = sampleAt(f[1].tsPos - 1, f[0]);
    next(2);
    // Among finer voxels than the query's, x may lie further on: kernels hold between the middle samples only.
    while (x > f[2].position) {
        for (int n = 0; n < 2; ++n) {
            f[n] = f[n + 1];
            jump[n] = jump[n + 1];
        }
        next(2);
    }
    next(3);
    const std::int32_t spacing = f[1].tsPos - f[0].tsPos;
    const bool even = f[2].tsPos - f[1].tsPos == spacing && f[3].tsPos - f[2].tsPos == spacing;
    const bool atJump = jump[0] || jump[1] || jump[2] || jump[3] || !even;
    out = interpolateValues1D({f[0].value, f[1].value, f[2].value, f[3].value},
                              {f[0].position, f[1].position, f[2].position, f[3].position}, x, atJump);
    return atJump;
}

template <class Tr, class T>
T CubicQuery<Tr, T>::interpolateValues1D(std::array<T, 4> const& values, std::array<float, 4> const& positions, float x,
                                         bool atResolutionJump) const
{
    const auto checked = [&](bool isBad, char const* message) {
        if (!isBad) return false;
        std::cout << "positions = " << positions[0] << " " << positions[1] << " " << positions[2] << " " << positions[3]
                  << "\nvalues = " << values[0] << " " << values[1] << " " << values[2] << " " << values[3]
                  << "\natResolutionJump = " << atResolutionJump << "\nsamplePosition = " << x << "\n";
        nanInfo(message, state());
        return true;
    };
    const bool checks = cubicDiagnostics().checks;
    if (checks && checked(isNan(values[0]) || isNan(values[1]) || isNan(values[2]) || isNan(values[3]), "interpolateValues1D input is NAN"))
        return T{};
    T result = atResolutionJump ? interpolateNonUniform(s_.cubicMode_, values, positions, x)
                                : interpolateUniform(s_.cubicMode_, values, (x - positions[1]) / (positions[2] - positions[1]));
    if (s_.clampOutput_) result = clampedBetween(result, values[1], values[2]);
    return checks && checked(isNan(result), "interpolateValues1D output is NAN") ? T{} : result;
}

template <class Tr, class T> bool CubicQuery<Tr, T>::getValue1D(int3 base, int axis, T& out) const
{
    traceCubic("getValue1D.begin()");
    const bool jump = walk(
        base[axis], sampleX(axis),
        [&](std::int32_t place, StencilValue& io) { return getStencilValue(moved(base, axis, place), axis, io); }, out);
    traceCubic("getValue1D.end() = ");
    return jump;
}

template <class Tr, class T> bool CubicQuery<Tr, T>::getValue2D(int3 base, int axisI, int axisJ, T& out) const
{
    traceCubic("getValue2D.begin()");
    const bool jump = walk(
        base[axisI], sampleX(axisI),
        [&](std::int32_t place, StencilValue& io) {
            getIncrementAndPosition2D(moved(base, axisI, place), axisI, axisJ, io.tsPos, io.tsInc);
            io.position = relative(axisI, io.tsPos);
            return getValue1D(moved(base, axisI, io.tsPos), axisJ, io.value);
        },
        out);
    traceCubic("getValue2D.end() = ");
    return jump;
}

template <class Tr, class T> bool CubicQuery<Tr, T>::getValue3D(int3 base, T& out) const
{
    return walk(
        base.z, sampleX(2),
        [&](std::int32_t place, StencilValue& io) {
            getIncrementAndPosition3D(moved(base, 2, place), io.tsPos, io.tsInc);
            io.position = relative(2, io.tsPos);
            return getValue2D(moved(base, 2, io.tsPos), 0, 1, io.value);
        },
        out);
}

namespace {
constexpr std::int32_t kNoWidth = std::numeric_limits<std::int32_t>::max();
}

/// Of the voxel that shows at a place, one level below the query's at the finest.
template <class Tr, class T> std::int32_t CubicQuery<Tr, T>::widthAt(int3 const& place) const
{
    Tile const& tile = getTile(place);
    if (!tile.valid()) return kNoWidth;
    const bool mayBeRefined = tile.depth() >= ti_.depth && depthLimit_ > tile.depth();
    return mayBeRefined && !tile.isLeaf(tile.childIJK(place)) ? tile.childVoxelDataWidth() : tile.voxelDataWidth();
}

/// Where there is nothing at all, the query's own voxels count. Multiples are counted from the low end of tile space, at
/// which voxels of every width begin.
template <class Tr, class T>
void CubicQuery<Tr, T>::alignDown(std::int32_t place, std::int32_t width, std::int32_t& io_pos, std::int32_t& io_inc) const
{
    io_inc = width == kNoWidth ? vdw_ : width;
    const int64 q = int64(place) - Tr::rangeMin;
    io_pos = static_cast<std::int32_t>(Tr::rangeMin + floorDiv(q, io_inc) * io_inc);
}

template <class Tr, class T>
void CubicQuery<Tr, T>::getIncrementAndPosition2D(int3 const& in_tijk2, int axisI, int axisJ, std::int32_t& io_pos,
                                                  std::int32_t& io_inc) const
{
    traceCubic("getIncrementAndPosition2D.begin() ");
    std::int32_t min = kNoWidth;
    for (int s = -1; s <= 2 && min >= vdw_; ++s) min = std::min(min, widthAt(moved(in_tijk2, axisJ, in_tijk2[axisJ] + s * vdw_)));
    alignDown(in_tijk2[axisI], min, io_pos, io_inc);
    traceCubic("getIncrementAndPosition2D.end() ");
}

template <class Tr, class T>
void CubicQuery<Tr, T>::getIncrementAndPosition3D(int3 const& in_tijk3, std::int32_t& io_pos, std::int32_t& io_inc) const
{
    std::int32_t min = kNoWidth;
    for (int t = -1; t <= 2 && min >= vdw_; ++t)
        for (int s = -1; s <= 2 && min >= vdw_; ++s)
            min = std::min(min, widthAt(int3(in_tijk3.x + s * vdw_, in_tijk3.y + t * vdw_, in_tijk3.z)));
    alignDown(in_tijk3.z, min, io_pos, io_inc);
}

template <class Tr, class T> CubicQueryState CubicQuery<Tr, T>::state() const
{
    CubicQueryState state{ti_.depth, tijk_, tile_.tijk(), lijk_, frac_, vdw_, W, tvw_, bool(s_.dofs_), tile_.tijk(), {}};
    for (int n = 0; n < 8; ++n)
        if (near_[n].valid()) state.places[static_cast<std::size_t>(n)] = {true, s_.container().tile(near_[n]).tijk(), near_[n].depth};
    return state;
}

#define TILEGRID_INSTANTIATE(T)                 \
    template class CubicQuery<BinaryTraits, T>; \
    template class CubicQuery<QuinaryTraits, T>;
TILEGRID_INSTANTIATE(float)
TILEGRID_INSTANTIATE(double)
TILEGRID_INSTANTIATE(Ostara::Math::double3)
TILEGRID_INSTANTIATE(Ostara::Math::float2)
TILEGRID_INSTANTIATE(Ostara::Math::float3)
TILEGRID_INSTANTIATE(Ostara::Math::float3x3)
TILEGRID_INSTANTIATE(Ostara::Math::float4)
TILEGRID_INSTANTIATE(Ostara::Math::float4x2)
TILEGRID_INSTANTIATE(Ostara::Math::float4x4)

}  // namespace OST::TileTree3D
