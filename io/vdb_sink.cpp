#include "io/vdb_grids.h"

#include <openvdb/tools/SignedFloodFill.h>

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
    void fillCube(openvdb::Coord const& low, int n, T const& value) override
    {
        accessor_.clear();  // it remembers nodes, and a fill replaces some
        grid_->sparseFill(openvdb::CoordBBox::createCube(low, n), toGridValue<V>(value), /*active*/ true);
    }
    openvdb::GridBase::Ptr grid() override { return grid_; }
    openvdb::FloatGrid::Ptr levelSet() override
    {
        if constexpr (std::is_same_v<G, openvdb::FloatGrid>) {
            openvdb::tools::signedFloodFill(grid_->tree());
            grid_->setGridClass(openvdb::GRID_LEVEL_SET);
            return grid_;
        } else {
            return {};
        }
    }

private:
    typename G::Ptr grid_;
    typename G::Accessor accessor_;
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
