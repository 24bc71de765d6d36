#include "io/savings.h"

#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/error.h"
#include "io/info.h"
#include "io/property_reader.h"
#include "io/text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <random>

namespace tilegrid::io {

using Ostara::Math::double3, Ostara::Math::float3;

namespace {

constexpr std::size_t kPlaces = 30000;
constexpr double kGridBand = 3.0;
/// Half width of the band around the surface in which places lie, in finest voxels of the merged level set: what counts is where
/// the surface runs.
constexpr double kPlaceBand = 1.0;

/// Level sets combined as their linear samplers read them.
class Combined {
public:
    Combined(std::vector<Ostara::Object const*> const& volumes, Combination combination) : combination_(combination)
    {
        for (auto const* volume : volumes) {
            readers_.push_back(readersOf(*volume, Ostara::Geometry::sVoxelSignedDistance.str(), SampleMode::kLinear));
            perVoxel_.push_back(1.0 / describeTiles(*volume).voxelSize);
        }
    }
    /// For one thread.
    class Reader {
    public:
        explicit Reader(Combined const& of) : of_(&of)
        {
            for (auto const& readers : of.readers_) readers_.push_back(readers.make());
        }
        double operator()(double3 const& place) const
        {
            double combined = 0;
            for (std::size_t n = 0; n < readers_.size(); ++n) {
                double value = 0;
                readers_[n]->read(float3(of_->perVoxel_[n] * place), &value);
                combined = n == 0 ? value : of_->combine(combined, value);
            }
            return combined;
        }

    private:
        Combined const* of_;
        std::vector<std::unique_ptr<PlaceReader>> readers_;
    };

private:
    double combine(double before, double value) const
    {
        switch (combination_) {
            case Combination::kUnion: return std::min(before, value);
            case Combination::kDifference: return std::max(before, -value);
            case Combination::kIntersection: return std::max(before, value);
        }
        return before;
    }
    Combination combination_;
    std::vector<PropertyReaders> readers_;
    std::vector<double> perVoxel_;
};

LevelSetInfo levelSetOf(Ostara::Object const& volume)
{
    const VolumeInfo info = describeVolume(volume);
    if (!info.levelSet || !(info.levelSet->area > 0)) throw InputError("a volume has no signed distance with a surface");
    return *info.levelSet;
}

/// Places within `band` of the combined surface, sorted so that neighbours are read one after the other.
std::vector<double3> placesNearSurface(std::vector<LevelSetInfo> const& sets, Combined const& combined, double band)
{
    std::mt19937 random(5);
    const auto unit = [&random] { return double(random()) / 4294967296.0; };
    const Combined::Reader read(combined);
    std::vector<double3> places;
    // Most places are far from any surface; a set whose own surface is hidden from the result has none at all.
    for (std::size_t n = 0; places.size() < kPlaces && n < 4000 * kPlaces; ++n) {
        LevelSetInfo const& set = sets[n % sets.size()];
        double3 place;
        for (int axis = 0; axis < 3; ++axis) place[axis] = set.boundsMin[axis] + unit() * (double(set.boundsMax[axis]) - set.boundsMin[axis]);
        if (std::abs(read(place)) < band) places.push_back(place);
    }
    const auto cell = [band](double x) { return std::floor(x / (4 * band)); };
    std::sort(places.begin(), places.end(), [&](double3 const& a, double3 const& b) {
        return std::tuple(cell(a.z), cell(a.y), cell(a.x), a.z, a.y, a.x) < std::tuple(cell(b.z), cell(b.y), cell(b.x), b.z, b.y, b.x);
    });
    return places;
}

/// The largest that measures of one thread each find.
template <class MakeMeasure> double largest(std::vector<double3> const& places, MakeMeasure makeMeasure)
{
    constexpr OST::int64 kPart = 1024;
    std::vector<double> parts((places.size() + kPart - 1) / kPart, 0.0);
    parallel::loop(0, OST::int64(parts.size()), 1, [&](OST::int64 begin, OST::int64 end) {
        const auto measure = makeMeasure();
        for (OST::int64 part = begin; part < end; ++part)
            for (std::size_t n = std::size_t(part * kPart); n < std::min(places.size(), std::size_t((part + 1) * kPart)); ++n)
                parts[std::size_t(part)] = std::max(parts[std::size_t(part)], measure(places[n]));
    });
    return parts.empty() ? 0.0 : *std::max_element(parts.begin(), parts.end());
}

/// The trilinear mix of a function at the nodes of a grid, which are whole multiples of the voxel size.
double onGrid(Combined::Reader const& read, double3 const& place, double voxel)
{
    double3 low, part;
    for (int axis = 0; axis < 3; ++axis) {
        low[axis] = std::floor(place[axis] / voxel);
        part[axis] = place[axis] / voxel - low[axis];
    }
    double mixed = 0;
    for (int corner = 0; corner < 8; ++corner) {
        double3 node = low;
        double weight = 1;
        for (int axis = 0; axis < 3; ++axis) {
            node[axis] += corner >> axis & 1;
            weight *= corner >> axis & 1 ? part[axis] : 1 - part[axis];
        }
        if (weight > 0) mixed += weight * read(voxel * node);
    }
    return mixed;
}

double gridError(std::vector<double3> const& places, Combined const& combined, double voxel)
{
    return largest(places, [&] {
        return [read = Combined::Reader(combined), voxel](double3 const& place) { return std::abs(onGrid(read, place, voxel) - read(place)); };
    });
}

LevelSetCost gridCost(double voxel, double area, double bytesPerVoxel, double error)
{
    const double voxels = 2 * kGridBand * area / (voxel * voxel);
    return {voxel, voxels, voxels * bytesPerVoxel, error};
}

}  // namespace

Savings measureSavings(Ostara::Object const& merged, std::vector<Ostara::Object const*> const& inputs, Combination combination)
{
    std::vector<LevelSetInfo> sets;
    for (auto const* input : inputs) sets.push_back(levelSetOf(*input));
    const Combined combined(inputs, combination), result({&merged}, combination);
    const VolumeInfo info = describeVolume(merged);
    const auto places = placesNearSurface(sets, combined, kPlaceBand * info.voxelSize);
    Savings savings;
    savings.places = std::int64_t(places.size());
    for (auto count : info.leafVoxelsByDepth) savings.merged.voxels += double(count);
    savings.merged.voxelSize = info.voxelSize;
    savings.merged.bytes = double(info.bytes);
    savings.merged.error = largest(places, [&] {
        return [read = Combined::Reader(combined), own = Combined::Reader(result)](double3 const& place) { return std::abs(own(place) - read(place)); };
    });

    // Steps of a fourth of an octave, from coarse to fine.
    const double step = std::pow(2.0, 0.25), bytesPerVoxel = savings.merged.bytes / savings.merged.voxels;
    const LevelSetInfo surface = levelSetOf(merged);
    double longest = 0;
    for (int axis = 0; axis < 3; ++axis) longest = std::max(longest, double(surface.boundsMax[axis]) - surface.boundsMin[axis]);
    double voxel = std::max(info.voxelSize, std::min(128 * info.voxelSize, longest / 8)), error = gridError(places, combined, voxel);
    while (error > savings.merged.error && voxel > info.voxelSize * step) {
        voxel /= step;
        error = gridError(places, combined, voxel);
    }
    savings.sameError = gridCost(voxel, surface.area, bytesPerVoxel, error);
    savings.finest = gridCost(info.voxelSize, surface.area, bytesPerVoxel, gridError(places, combined, info.voxelSize));
    return savings;
}

namespace {

nlohmann::ordered_json jsonOf(LevelSetCost const& cost)
{
    return {{"voxel_size", cost.voxelSize}, {"voxels", std::llround(cost.voxels)}, {"bytes", std::llround(cost.bytes)}, {"error", cost.error}};
}

using Row = std::vector<std::string>;

Row rowOf(std::string const& name, LevelSetCost const& cost, LevelSetCost const& merged)
{
    const std::string times = &cost == &merged ? "" : number(std::round(10 * cost.bytes / merged.bytes) / 10) + " x";
    return {name, byteText(cost.bytes), times, number(cost.voxelSize), number(cost.voxels / 1e6) + " M", number(cost.error)};
}

/// Columns as wide as they need to be, two blanks between them; the first to the left, the others to the right.
std::string tableOf(std::vector<Row> const& rows)
{
    std::vector<std::size_t> widths(rows.front().size());
    for (Row const& row : rows)
        for (std::size_t n = 0; n < row.size(); ++n) widths[n] = std::max(widths[n], row[n].size());
    std::string text;
    for (Row const& row : rows) {
        for (std::size_t n = 0; n < row.size(); ++n) {
            const std::string blanks(widths[n] - row[n].size(), ' ');
            text += n == 0 ? row[n] + blanks : "  " + blanks + row[n];
        }
        text += "\n";
    }
    return text;
}

}  // namespace

std::string toJson(Savings const& savings)
{
    const nlohmann::ordered_json json = {{"places", savings.places},
                                         {"merged", jsonOf(savings.merged)},
                                         {"same_error", jsonOf(savings.sameError)},
                                         {"finest", jsonOf(savings.finest)}};
    return json.dump(2) + "\n";
}

std::string toText(Savings const& savings)
{
    return tableOf({{"", "memory", "of merged", "voxel size", "voxels", "largest error"},
                    rowOf("merged", savings.merged, savings.merged),
                    rowOf("narrow band of one size, same error", savings.sameError, savings.merged),
                    rowOf("narrow band of one size, the finest", savings.finest, savings.merged)}) +
           "over " + std::to_string(savings.places) + " places near the surface\n";
}

}  // namespace tilegrid::io
