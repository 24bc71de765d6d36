#include "TilegridOps/algorithms/new_voxel_sides.h"

#include "TilegridOps/substrate/parallel.h"

#include <cmath>

namespace tilegrid {

using namespace OST::TileTree3D;
using OST::int64;

namespace {

constexpr int64 kTilesAtOnce = 64;

/// A step across a face: the axis, which way, and the number of the direction among the 27.
struct FaceStep {
    int axis, step, direction;
};
const std::array<FaceStep, 6>& faceSteps()
{
    static const std::array<FaceStep, 6> steps = [] {
        std::array<FaceStep, 6> made{};
        for (int n = 0; n < 6; ++n) {
            int3 offset(0);
            offset[n / 2] = n % 2 ? 1 : -1;
            made[std::size_t(n)] = {n / 2, n % 2 ? 1 : -1, int(neighborDirection(offset.x, offset.y, offset.z))};
        }
        return made;
    }();
    return steps;
}

}  // namespace

template <class Tr>
NewVoxelSides<Tr>::NewVoxelSides(Floats& levelSet, int depth, std::vector<std::int32_t> const& neighbors, std::vector<std::uint8_t> const& isOld,
                                 double spacing)
    : levelSet_(levelSet), depth_(depth), neighbors_(neighbors), spacing_(spacing), slot_(isOld.size(), -1)
{
    for (std::size_t n = 0; n < isOld.size(); ++n)
        if (!isOld[n]) {
            slot_[n] = std::int64_t(tiles_.size());
            tiles_.push_back(int64(n));
        }
    states_.assign(tiles_.size(), States{});
}

template <class Tr> void NewVoxelSides<Tr>::setTangentSide(int64 tile, int voxel, bool inside)
{
    if (inside) states_[std::size_t(slot_[std::size_t(tile)])][std::size_t(voxel)] |= kTangentInside;
}

/// The side that a voxel of unknown side hears from those around it.
template <class Tr> int NewVoxelSides<Tr>::heard(int64 tile, int voxel, States const& own) const
{
    const int3 at = cubeIndex(Tr::width, voxel);
    const double distance = levelSet_.tileData(tile, depth_)(voxel);
    int votes = 0;
    bool any = false;
    for (FaceStep const& face : faceSteps()) {
        int3 to = at;
        to[face.axis] += face.step;
        const bool leaves = to[face.axis] < 0 || to[face.axis] >= Tr::width;
        const std::int32_t other = leaves ? beside(tile, face.direction) : std::int32_t(tile);
        if (other < 0) continue;
        to[face.axis] -= leaves ? face.step * Tr::width : 0;
        const int there = flatIndex(Tr::width, to.x, to.y, to.z);
        const double theirs = levelSet_.tileData(other, depth_)(there);
        const std::int64_t slot = slot_[std::size_t(other)];
        int side = theirs < 0 ? kInside : kOutside;
        if (slot >= 0) side = (leaves ? states_[std::size_t(slot)] : own)[std::size_t(there)] & kSides;
        if (side == kUnknown || !(std::max(distance, std::fabs(theirs)) > spacing_)) continue;
        any = true;
        votes += side == kInside ? -1 : 1;
    }
    return !any ? kUnknown : votes < 0 ? kInside : kOutside;
}

/// One tile as far as it goes by what its neighbours had before the round. \return whether anything is known that was not
template <class Tr> bool NewVoxelSides<Tr>::spreadInto(std::size_t slot, States& states) const
{
    states = states_[slot];
    bool changed = false;
    for (bool again = true; again;) {
        again = false;
        for (int v = 0; v < Tr::voxelCount; ++v) {
            if (states[std::size_t(v)] & kSides) continue;
            const int side = heard(tiles_[slot], v, states);
            if (side == kUnknown) continue;
            states[std::size_t(v)] = std::uint8_t(states[std::size_t(v)] | side);
            again = changed = true;
        }
    }
    return changed;
}

template <class Tr> void NewVoxelSides<Tr>::spread()
{
    std::vector<std::size_t> round(tiles_.size());
    for (std::size_t n = 0; n < round.size(); ++n) round[n] = n;
    std::vector<States> fresh;
    std::vector<std::uint8_t> changed, queued(tiles_.size());
    while (!round.empty()) {
        fresh.resize(round.size());
        changed.assign(round.size(), 0);
        parallel::loop(0, int64(round.size()), kTilesAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) changed[std::size_t(n)] = spreadInto(round[std::size_t(n)], fresh[std::size_t(n)]);
        });
        std::vector<std::size_t> next;
        for (std::size_t n = 0; n < round.size(); ++n) {
            if (!changed[n]) continue;
            states_[round[n]] = fresh[n];
            for (FaceStep const& face : faceSteps()) {
                const std::int32_t other = beside(tiles_[round[n]], face.direction);
                const std::int64_t slot = other < 0 ? -1 : slot_[std::size_t(other)];
                if (slot < 0 || queued[std::size_t(slot)]) continue;
                queued[std::size_t(slot)] = 1;
                next.push_back(std::size_t(slot));
            }
        }
        for (std::size_t slot : next) queued[slot] = 0;
        round = std::move(next);
    }
}

template <class Tr> void NewVoxelSides<Tr>::write()
{
    spread();
    parallel::loop(0, int64(tiles_.size()), kTilesAtOnce, [&](int64 begin, int64 end) {
        for (int64 n = begin; n < end; ++n) {
            const auto values = levelSet_.tileData(tiles_[std::size_t(n)], depth_);
            for (int v = 0; v < Tr::voxelCount; ++v) {
                const std::uint8_t state = states_[std::size_t(n)][std::size_t(v)];
                if (state & kSides ? (state & kSides) == kInside : (state & kTangentInside) != 0) values(v) = -values(v);
            }
        }
    });
}

template class NewVoxelSides<BinaryTraits>;
template class NewVoxelSides<QuinaryTraits>;

}  // namespace tilegrid
