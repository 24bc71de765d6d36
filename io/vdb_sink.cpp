#include "io/vdb_grids.h"

#include <openvdb/tools/Prune.h>
#include <openvdb/tools/SignedFloodFill.h>

#include <array>
#include <cmath>

namespace tilegrid::io {

namespace {

template <class G> class Sink final : public GridSink<ElementOf<typename G::ValueType>> {
    using V = typename G::ValueType;
    using T = ElementOf<V>;

public:
    explicit Sink(T const& background) : grid_(G::create(toGridValue<V>(background))), accessor_(grid_->getAccessor())
    {}

    void setCube(openvdb::Coord const& low, int n, T const* values) override
    {
        for (int k = 0; k < n; ++k)
            for (int j = 0; j < n; ++j)
                for (int i = 0; i < n; ++i) accessor_.setValueOn(low.offsetBy(i, j, k), toGridValue<V>(*values++));
    }
    void fillBox(openvdb::CoordBBox const& box, T const& value) override
    {
        accessor_.clear();  // it remembers nodes, and a fill replaces some
        grid_->sparseFill(box, toGridValue<V>(value), /*active*/ true);
        ranges_.emplace_back();
        widen(ranges_.back(), value);
    }
    void setBlocks(std::vector<Ostara::Math::int3> const& lows, FillBlock<T> fill) override
    {
        accessor_.clear();
        std::vector<Leaf*> leaves;
        leaves.reserve(lows.size());
        for (auto const& low : lows) leaves.push_back(grid_->tree().touchLeaf({low.x, low.y, low.z}));
        const std::size_t before = ranges_.size();
        ranges_.resize(before + lows.size());
        constexpr int kGrain = 16;
        parallel::loop(0, static_cast<OST::int64>(lows.size()), kGrain, [&](OST::int64 begin, OST::int64 end) {
            std::array<T, Leaf::SIZE> values;
            std::array<bool, Leaf::SIZE> active;
            for (OST::int64 n = begin; n < end; ++n) {
                fill(n, values.data(), active.data());
                setLeaf(*leaves[n], values, active);
                for (unsigned at = 0; at < Leaf::SIZE; ++at)
                    if (active[at]) widen(ranges_[before + n], values[at]);
            }
        });
    }
    ValueRange range() const override
    {
        ValueRange all;
        for (ValueRange const& part : ranges_) {
            all.least = std::min(all.least, part.least);
            all.largest = std::max(all.largest, part.largest);
            all.finite = all.finite && part.finite;
        }
        return all;
    }
    openvdb::GridBase::Ptr grid() override { return grid_; }
    void prune() override
    {
        accessor_.clear();
        openvdb::tools::prune(grid_->tree());
    }
    void finishLevelSet() override
    {
        if constexpr (std::is_same_v<G, openvdb::FloatGrid>) {
            accessor_.clear();
            // Blocks have their signs already.
            openvdb::tools::signedFloodFill(grid_->tree(), /*threaded*/ true, /*grainSize*/ 1, /*minLevel*/ 1);
            openvdb::tools::pruneLevelSet(grid_->tree());
            grid_->setGridClass(openvdb::GRID_LEVEL_SET);
        }
    }

private:
    using Leaf = typename G::TreeType::LeafNodeType;

    static void setLeaf(Leaf& leaf, std::array<T, Leaf::SIZE> const& values, std::array<bool, Leaf::SIZE> const& active)
    {
        constexpr int kWidth = Leaf::DIM;
        auto* out = leaf.buffer().data();
        typename Leaf::NodeMaskType mask;
        for (int at = 0; at < static_cast<int>(Leaf::SIZE); ++at) {
            // A leaf's k runs fastest.
            const int from =
                OST::TileTree3D::flatIndex(kWidth, at / (kWidth * kWidth), at / kWidth % kWidth, at % kWidth);
            out[at] = toGridValue<V>(values[from]);
            mask.set(at, active[from]);
        }
        leaf.setValueMask(mask);
    }
    static void widen(ValueRange& range, T const& value)
    {
        using Traits = Ostara::Math::ElementTraits<T>;
        for (int c = 0; c < Traits::components; ++c) {
            const auto v = static_cast<double>(Traits::at(value, c));
            range.finite = range.finite && std::isfinite(v);
            range.least = std::min(range.least, v);
            range.largest = std::max(range.largest, v);
        }
    }

    typename G::Ptr grid_;
    typename G::Accessor accessor_;
    /// One for each box and block.
    std::vector<ValueRange> ranges_;
};

template <class T, class... Gs> std::unique_ptr<GridSink<T>> sinkFor(T const& background, GridTypes<Gs...>)
{
    std::unique_ptr<GridSink<T>> sink;
    const auto attempt = [&]<class G>(G const*) {
        if constexpr (std::is_same_v<ElementOf<typename G::ValueType>, T>) sink = std::make_unique<Sink<G>>(background);
    };
    (attempt(static_cast<Gs const*>(nullptr)), ...);
    return sink;
}

}  // namespace

template <class T> std::unique_ptr<GridSink<T>> makeGridSink(T const& background)
{
    return sinkFor(background, PropertyGrids());
}

template std::unique_ptr<GridSink<float>> makeGridSink(float const&);
template std::unique_ptr<GridSink<double>> makeGridSink(double const&);
template std::unique_ptr<GridSink<Ostara::Math::float3>> makeGridSink(Ostara::Math::float3 const&);
template std::unique_ptr<GridSink<Ostara::Math::double3>> makeGridSink(Ostara::Math::double3 const&);
template std::unique_ptr<GridSink<int>> makeGridSink(int const&);
template std::unique_ptr<GridSink<OST::int64>> makeGridSink(OST::int64 const&);

}  // namespace tilegrid::io
