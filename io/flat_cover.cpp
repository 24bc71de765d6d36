#include "io/flat_cover.h"

#include "TilegridOps/substrate/parallel.h"
#include "io/error.h"
#include "io/text.h"

#include <array>
#include <cmath>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

/// Tiles that one part of a pass takes.
constexpr OST::int64 kPart = 64;
/// A leaf node beside its values: masks, origin, and its share of the nodes above.
constexpr double kBytesPerBlock = 160.0;
/// A constant node of the widest kind of a .vdb grid, 4096 voxels wide, in the map of its root.
constexpr double kWidestNode = 4096.0, kBytesPerWidestNode = 96.0;

int blockLow(int at) { return at & ~(kBlockWidth - 1); }

bool lessBlock(int3 const& a, int3 const& b) { return a.x != b.x ? a.x < b.x : a.y != b.y ? a.y < b.y : a.z < b.z; }

enum class Reach { kNone, kSome, kAll };

/// Bounds of the distance inside a coarse tile.
template <class Tr> class DistanceBounds {
public:
    explicit DistanceBounds(FlatDomain<Tr> const& domain)
        : domain_(domain), offset_(voxelOffset(domain.offset)), samples_(domain.tree, *domain.distance, domain.offset)
    {}

    /// Takes in a tile of a depth that the distance has.
    void load(Tile<Tr, Tr::childCount> const& tile)
    {
        ratio_ = tile.voxelDataWidth() / domain_.lattice.width;
        row_ = samples_.row();
        first_ = samples_.first();
        float const* from = samples_.of(tile.treeIndex());
        // Samples beyond tile space are the default, which is no distance.
        int begin[3], end[3];
        for (int axis = 0; axis < 3; ++axis) {
            const bool low = tile.tijk()[axis] == Tr::rangeMin;
            const bool high = OST::int64(tile.tijk()[axis]) + tile.tileVoxelWidth() > Tr::rangeMax;
            begin[axis] = low ? first_ : 0;
            end[axis] = high ? first_ + Tr::width : row_;
        }
        for (int n = 0; n < row_ * row_ * row_; ++n) {
            const int3 at = cubeIndex(row_, n);
            bool inside = true;
            for (int axis = 0; axis < 3; ++axis) inside = inside && at[axis] >= begin[axis] && at[axis] < end[axis];
            values_[n] = inside && std::isfinite(from[n]) ? double(from[n]) : std::numeric_limits<double>::quiet_NaN();
        }
    }

    /// \param low, high  a box inside one voxel of the tile, from the tile's low corner in voxels of the lattice, `high` exclusive
    Reach of(int3 const& low, int3 const& high) const
    {
        // Around a sample in the middle of its voxel lie two cells on each axis: the bounds of each part are its own.
        int3 middle;
        for (int axis = 0; axis < 3; ++axis) {
            const double off = double(offset_[axis]), last = std::floor((high[axis] - 1 + off) / ratio_ - off);
            middle[axis] = std::clamp(static_cast<int>(std::ceil((last + off) * ratio_ - off)), low[axis], high[axis]);
        }
        bool any = false, all = true;
        for (int part = 0; part < 8; ++part) {
            int3 from = low, to = high;
            for (int axis = 0; axis < 3; ++axis) (part >> axis & 1 ? from : to)[axis] = middle[axis];
            if (from.x >= to.x || from.y >= to.y || from.z >= to.z) continue;
            const Reach reach = ofPart(from, to);
            any = any || reach != Reach::kNone;
            all = all && reach == Reach::kAll;
        }
        return all ? Reach::kAll : any ? Reach::kSome : Reach::kNone;
    }

private:
    struct Place {
        int3 sample;
        double fraction[3];
    };
    /// Fractions are computed from numbers below 8 in float.
    static constexpr double kFractionRounding = 8.0 * 0x1p-24;
    /// A value, a bound of its magnitude, and of what rounding in float has added, in units of a float's rounding. The sampler mixes
    /// by (b - a) * f + a: the difference and the product are rounded, which counts f times, and the sum.
    struct Mixed {
        double value = 0.0, magnitude = 0.0, rounding = 0.0;
        static Mixed of(Mixed const& a, Mixed const& b, double f)
        {
            const auto mix = [f](double x, double y) { return x + (y - x) * f; };
            const double magnitude = mix(a.magnitude, b.magnitude);
            return {mix(a.value, b.value), magnitude,
                    mix(a.rounding, b.rounding) + 2.0 * f * (a.magnitude + b.magnitude) + magnitude};
        }
    };
    struct Bounds {
        double lowest = std::numeric_limits<double>::infinity(), highest = -std::numeric_limits<double>::infinity();
        bool allFinite = true;
        void add(Mixed const& mixed)
        {
            // Twice, for the products of roundings.
            const double slack = 2.0 * 0x1p-24 * mixed.rounding;
            allFinite = allFinite && mixed.value == mixed.value;
            lowest = std::min(lowest, mixed.value - slack);  // of a NaN, what was there
            highest = std::max(highest, mixed.value + slack);
        }
    };
    double sample(int i, int j, int k) const { return values_[flatIndex(row_, i + first_, j + first_, k + first_)]; }
    void ofCell(Place const& from, Place const& to, Bounds& bounds) const
    {
        Mixed corners[8];
        for (int n = 0; n < 8; ++n) {
            corners[n].value = sample(from.sample.x + (n & 1), from.sample.y + (n >> 1 & 1), from.sample.z + (n >> 2));
            corners[n].magnitude = std::abs(corners[n].value);
        }
        // Value and rounding are linear along each axis, so the corners of the box bound both.
        for (int n = 0; n < 8; ++n) {
            Mixed mix[8];
            std::copy_n(corners, 8, mix);
            for (int axis = 0; axis < 3; ++axis) {
                const double f = n >> axis & 1 ? std::min(to.fraction[axis] + kFractionRounding, 1.0)
                                               : std::max(from.fraction[axis] - kFractionRounding, 0.0);
                for (int pair = 0; pair < 4 >> axis; ++pair) mix[pair] = Mixed::of(mix[2 * pair], mix[2 * pair + 1], f);
            }
            bounds.add(mix[0]);
        }
    }
    /// Of a box inside one cell.
    Reach ofPart(int3 const& low, int3 const& high) const
    {
        Place from, to;
        for (int axis = 0; axis < 3; ++axis) {
            const double off = double(offset_[axis]);
            const double first = (low[axis] + off) / ratio_ - off;
            from.sample[axis] = to.sample[axis] = static_cast<int>(std::floor(first));
            from.fraction[axis] = first - from.sample[axis];
            to.fraction[axis] = (high[axis] - 1 + off) / ratio_ - off - from.sample[axis];
        }
        Bounds bounds;
        ofCell(from, to, bounds);
        if (!bounds.allFinite || !(bounds.lowest < domain_.below) || !(bounds.highest > domain_.above)) return Reach::kNone;
        const bool inside = bounds.highest < domain_.below && bounds.lowest > domain_.above;
        return inside ? Reach::kAll : Reach::kSome;
    }

    FlatDomain<Tr> const& domain_;
    float3 offset_;
    TileSamples<Tr, float> samples_;
    std::array<double, (Tr::width + 2) * (Tr::width + 2) * (Tr::width + 2)> values_;
    int ratio_ = 1, row_ = 0, first_ = 0;
};

/// Finds the blocks of tiles, one tile after the other. For one thread.
template <class Tr> class Coverer {
public:
    explicit Coverer(FlatDomain<Tr> const& domain)
        : domain_(domain), lattice_(domain.lattice), states_(domain.property ? domain.property() : nullptr)
    {
        if (domain.distance) bounds_.emplace(domain);
    }

    /// Bytes that the tile's part of the grid will take, roughly; 0 exactly if it has none.
    double estimate(TreeIndex const& index)
    {
        return visitTile(index, [this](LatticeBox const& box, Reach reach, VoxelState state) {
            return estimated(box, reach, state);
        });
    }
    void cover(TreeIndex const& index, FlatCover& cover)
    {
        cover_ = &cover;
        visitTile(index, [this](LatticeBox const& box, Reach, VoxelState state) {
            divide(box, state);
            return 0.0;
        });
    }

private:
    /// Calls `visit(box, reach, state)` for every leaf voxel with a part in the domain. \return the sum of what that returns
    template <class Visit> double visitTile(TreeIndex const& index, Visit const& visit)
    {
        auto const& tile = domain_.tree.tile(index);
        load(tile);
        const int ratio = tile.voxelDataWidth() / lattice_.width;
        double sum = 0.0;
        for (voxel_ = 0; voxel_ < Tr::voxelCount; ++voxel_) {
            const int3 ijk = cubeIndex(Tr::width, voxel_);
            if (index.depth < lattice_.depth && !tile.isLeaf(tile.voxelChildIJK(ijk.x, ijk.y, ijk.z))) continue;
            const LatticeBox box = clipped({corner_ + ratio * ijk, corner_ + ratio * (ijk + int3(1))});
            if (isEmpty(box)) continue;
            const Reach reach = reachOf(box);
            if (reach == Reach::kNone) continue;
            if (!domain_.distance && voxelStates_[voxel_] == VoxelState::kDefault) continue;
            sum += visit(box, reach, voxelStates_[voxel_]);
        }
        return sum;
    }
    void load(Tile<Tr, Tr::childCount> const& tile)
    {
        tile_ = tile.treeIndex();
        corner_ = lattice_.indexOf(tile.tijk());
        if (states_)
            states_->read(tile_, voxelStates_.data());
        else
            voxelStates_.fill(VoxelState::kVaries);
        distanceKnown_ = domain_.distance && tile_.depth <= domain_.distance->depth();
        // Above the depths of the distance there is only its default.
        distanceAbsent_ = domain_.distance
            && (tile_.depth < domain_.distance->minDepth() || (distanceKnown_ && !domain_.distance->tileData(tile_)));
        if (distanceKnown_ && !distanceAbsent_ && tile_.depth < lattice_.depth) bounds_->load(tile);
    }
    LatticeBox clipped(LatticeBox box) const
    {
        for (int axis = 0; axis < 3; ++axis) {
            box.low[axis] = std::max(box.low[axis], domain_.clip.low[axis]);
            box.high[axis] = std::min(box.high[axis], domain_.clip.high[axis]);
        }
        return box;
    }
    static bool isEmpty(LatticeBox const& box)
    {
        return !(box.low.x < box.high.x && box.low.y < box.high.y && box.low.z < box.high.z);
    }
    Reach reachOf(LatticeBox const& box) const
    {
        if (!domain_.distance) return Reach::kAll;
        if (distanceAbsent_) return Reach::kNone;
        if (!distanceKnown_) return Reach::kSome;
        if (tile_.depth < lattice_.depth) return bounds_->of(box.low - corner_, box.high - corner_);
        const double value = domain_.distance->tileData(tile_)(voxel_);
        return value > domain_.above && value < domain_.below ? Reach::kAll : Reach::kNone;
    }
    double bytesPerBlock() const { return double(domain_.bytesPerValue) * kBlockVoxels + kBytesPerBlock; }
    static bool isInOneBlock(LatticeBox const& box)
    {
        bool one = true;
        for (int axis = 0; axis < 3; ++axis) one = one && blockLow(box.low[axis]) == blockLow(box.high[axis] - 1);
        return one;
    }
    static bool isWide(LatticeBox const& box)
    {
        const int3 size = box.high - box.low;
        return std::min({size.x, size.y, size.z}) >= kBlockWidth;
    }

    double estimated(LatticeBox const& box, Reach reach, VoxelState state) const
    {
        const double3 size = double3(box.high - box.low);
        const double blocks = size.x * size.y * size.z / kBlockVoxels;
        // Voxels smaller than blocks share them; not all of what they share is used.
        if (!isWide(box)) return 1.5 * blocks * bytesPerBlock();
        if (reach == Reach::kSome && distanceKnown_) return bytesPerBlock() * crossed(box, kEstimateHalvings);
        if (state == VoxelState::kVaries) return blocks * bytesPerBlock();
        // Beside constant nodes there are blocks where the box ends inside of one.
        bool aligned = true;
        for (int axis = 0; axis < 3; ++axis)
            aligned = aligned && blockLow(box.low[axis]) == box.low[axis] && blockLow(box.high[axis]) == box.high[axis];
        const double faces = 2.0 * (size.x * size.y + size.y * size.z + size.z * size.x) / (kBlockWidth * kBlockWidth);
        return (aligned ? 0.0 : std::min(faces, blocks) * bytesPerBlock())
            + (1.0 + blocks * kBlockVoxels / std::pow(kWidestNode, 3)) * kBytesPerWidestNode;
    }
    /// Blocks that a surface inside a box passes through, and those of the band beside it.
    double crossed(LatticeBox const& box, int halvings) const
    {
        const Reach reach = reachOf(box);
        if (reach == Reach::kNone) return 0.0;
        const double3 size = double3(box.high - box.low);
        const double blocks = std::max(1.0, size.x * size.y * size.z / kBlockVoxels);
        if (isInOneBlock(box)) return 1.0;
        // Twice the plane through the middle, for its slant and for the band.
        if (halvings == 0 || !isWide(box)) return std::min(blocks, 2.0 * std::pow(blocks, 2.0 / 3.0));
        if (reach == Reach::kAll) return blocks;
        std::array<LatticeBox, 8> reached;
        int count = 0;
        forHalves(box, [&](LatticeBox const& half) {
            if (reachOf(half) != Reach::kNone) reached[std::size_t(count++)] = half;
        });
        // A surface that only touches a wide box near one of its corners is followed to there, however wide the box is.
        double sum = 0.0;
        for (int n = 0; n < count; ++n) sum += crossed(reached[std::size_t(n)], count == 1 ? halvings : halvings - 1);
        return sum;
    }

    void divide(LatticeBox const& box, VoxelState state)
    {
        const Reach reach = reachOf(box);
        if (reach == Reach::kNone) return;
        if (reach == Reach::kAll && isWide(box)) {
            if (state != VoxelState::kVaries)
                cover_->boxes.push_back({box, tile_, voxel_});
            else
                addBlocks(box);
        } else if (isInOneBlock(box)) {
            addBlocks(box);
        } else {
            forHalves(box, [&](LatticeBox const& half) { divide(half, state); });
        }
    }
    /// Halves a box along every axis on which it reaches into two blocks, at the face of a block.
    template <class Visit> static void forHalves(LatticeBox const& box, Visit const& visit)
    {
        int3 middle;
        for (int axis = 0; axis < 3; ++axis) {
            const OST::int64 sum = OST::int64(box.low[axis]) + box.high[axis];
            middle[axis] = std::max(blockLow(static_cast<int>(sum >> 1)), blockLow(box.low[axis]) + kBlockWidth);
            if (middle[axis] >= box.high[axis]) middle[axis] = box.high[axis];
        }
        for (int n = 0; n < 8; ++n) {
            LatticeBox half = box;
            for (int axis = 0; axis < 3; ++axis) (n >> axis & 1 ? half.low : half.high)[axis] = middle[axis];
            if (!isEmpty(half)) visit(half);
        }
    }
    void addBlocks(LatticeBox const& box)
    {
        for (int i = blockLow(box.low.x); i < box.high.x; i += kBlockWidth)
            for (int j = blockLow(box.low.y); j < box.high.y; j += kBlockWidth)
                for (int k = blockLow(box.low.z); k < box.high.z; k += kBlockWidth)
                    if (const int3 block(i, j, k); cover_->blocks.empty() || !(cover_->blocks.back() == block))
                        cover_->blocks.push_back(block);
    }

    static constexpr int kEstimateHalvings = 4;

    FlatDomain<Tr> const& domain_;
    DepthLattice<Tr> lattice_;
    std::unique_ptr<PropertyStates> states_;
    std::optional<DistanceBounds<Tr>> bounds_;
    FlatCover* cover_ = nullptr;
    // The tile at hand.
    TreeIndex tile_;
    int3 corner_;
    std::array<VoxelState, Tr::voxelCount> voxelStates_;
    std::int32_t voxel_ = 0;
    bool distanceKnown_ = false, distanceAbsent_ = false;
};

/// Tiles with a part in the domain, and what that will take.
struct Candidates {
    std::vector<TreeIndex> tiles;
    double bytes = 0.0;
};

template <class Tr> void checkBytes(double bytes, FlatDomain<Tr> const& domain)
{
    if (domain.maxBytes > 0 && bytes > double(domain.maxBytes))
        throw InputError("grid '" + domain.name + "' would take about " + byteText(bytes)
                         + " with the finest voxels throughout, and the limit is " + byteText(double(domain.maxBytes))
                         + ": write with layout=levels, which keeps all voxel sizes, or raise the limit");
}

template <class Tr> std::vector<TreeIndex> candidateTiles(FlatDomain<Tr> const& domain)
{
    std::vector<TreeIndex> tiles;
    double bytes = 0.0;
    for (int depth = 0; depth <= domain.lattice.depth; ++depth) {
        const OST::int64 count = domain.tree.tileCount(depth);
        std::vector<Candidates> parts((count + kPart - 1) / kPart);
        parallel::loop(0, static_cast<OST::int64>(parts.size()), 1, [&](OST::int64 begin, OST::int64 end) {
            Coverer<Tr> coverer(domain);
            for (OST::int64 part = begin; part < end; ++part)
                for (OST::int64 n = part * kPart; n < std::min(count, (part + 1) * kPart); ++n)
                    if (const double tileBytes = coverer.estimate({n, depth}); tileBytes > 0.0) {
                        parts[part].tiles.push_back({n, depth});
                        parts[part].bytes += tileBytes;
                    }
        });
        for (Candidates const& part : parts) {
            tiles.insert(tiles.end(), part.tiles.begin(), part.tiles.end());
            bytes += part.bytes;
        }
    }
    checkBytes(bytes, domain);
    return tiles;
}

}  // namespace

template <class Tr> FlatCover coverFlatGrid(FlatDomain<Tr> const& domain)
{
    const std::vector<TreeIndex> tiles = candidateTiles(domain);
    const auto count = static_cast<OST::int64>(tiles.size());
    std::vector<FlatCover> parts((count + kPart - 1) / kPart);
    parallel::loop(0, static_cast<OST::int64>(parts.size()), 1, [&](OST::int64 begin, OST::int64 end) {
        Coverer<Tr> coverer(domain);
        for (OST::int64 part = begin; part < end; ++part)
            for (OST::int64 n = part * kPart; n < std::min(count, (part + 1) * kPart); ++n)
                coverer.cover(tiles[n], parts[part]);
    });
    FlatCover cover;
    for (FlatCover& part : parts) {
        cover.blocks.insert(cover.blocks.end(), part.blocks.begin(), part.blocks.end());
        cover.boxes.insert(cover.boxes.end(), part.boxes.begin(), part.boxes.end());
        part = {};
    }
    parallel::sort(cover.blocks.data(), cover.blocks.data() + cover.blocks.size(), lessBlock);
    cover.blocks.erase(std::unique(cover.blocks.begin(), cover.blocks.end()), cover.blocks.end());
    return cover;
}

template FlatCover coverFlatGrid(FlatDomain<BinaryTraits> const&);
template FlatCover coverFlatGrid(FlatDomain<QuinaryTraits> const&);

}  // namespace tilegrid::io
