#include "benchmarks/support/level_set_peer.h"

#include <openvdb/openvdb.h>
#include <openvdb/tools/FastSweeping.h>
#include <openvdb/tools/LevelSetFilter.h>
#include <openvdb/tools/LevelSetRebuild.h>
#include <openvdb/tools/LevelSetTracker.h>
#include <openvdb/tools/SignedFloodFill.h>

#include <limits>

namespace bench {

using Ostara::Math::int3;
using Grid = openvdb::FloatGrid;

constexpr float kHalfWidth = 3;

struct LevelSetPeer::Content {
    Grid::Ptr input, result;
};

LevelSetPeer::LevelSetPeer(std::vector<int3> const& places, std::vector<float> const& values) : content_(std::make_unique<Content>())
{
    openvdb::initialize();
    auto& grid = content_->input = Grid::create(kHalfWidth);
    grid->setGridClass(openvdb::GRID_LEVEL_SET);
    auto accessor = grid->getAccessor();
    for (std::size_t n = 0; n < places.size(); ++n) accessor.setValue(openvdb::Coord(places[n].x, places[n].y, places[n].z), values[n]);
    openvdb::tools::signedFloodFill(grid->tree());
}
LevelSetPeer::LevelSetPeer(LevelSetPeer&&) noexcept = default;
LevelSetPeer::~LevelSetPeer() = default;

std::uint64_t LevelSetPeer::run(Way way, float distance)
{
    auto& result = content_->result;
    if (way == Way::kRebuild) {
        result = openvdb::tools::levelSetRebuild(*content_->input, 0.0f, kHalfWidth);
    } else if (way == Way::kFastSweeping) {
        result = openvdb::tools::sdfToSdf(*content_->input, 0.0f, 1);
    } else {
        result = content_->input->deepCopy();
        if (way == Way::kNormalize || way == Way::kConverge) {
            openvdb::tools::LevelSetTracker<Grid> tracker(*result);
            tracker.setNormCount(way == Way::kNormalize ? 3 : kConverged);
            tracker.setSpatialScheme(openvdb::math::HJWENO5_BIAS);
            tracker.setTemporalScheme(openvdb::math::TVD_RK1);
            tracker.normalize();
        } else {
            openvdb::tools::LevelSetFilter<Grid> filter(*result);
            filter.offset(-distance);
        }
    }
    return result->activeVoxelCount();
}

void LevelSetPeer::keep() { content_->input = content_->result; }

std::vector<float> LevelSetPeer::values(std::vector<int3> const& places) const
{
    std::vector<float> all;
    const auto accessor = content_->result->getConstAccessor();
    for (int3 const& p : places) {
        float value;
        const bool active = accessor.probeValue(openvdb::Coord(p.x, p.y, p.z), value);
        all.push_back(active ? value : std::numeric_limits<float>::quiet_NaN());
    }
    return all;
}

}  // namespace bench
