#include "io/vdb_lattice.h"
#include "io/vdb_levels.h"

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

/// Makes the grids of one volume.
template <class Tr> class LevelWriter {
public:
    LevelWriter(Container<Tr> const& tree, VoxelTopology<Tr> const& topology) : tree_(tree), topology_(topology) {}

    template <class C> void addProperty(C const& channel, std::string const& name)
    {
        using T = typename C::Element;
        const auto fetch = fetchFrom<Tr>(channel);
        const int low = std::clamp(channel.minDepth(), 0, Tr::maxDepth),
                  high = std::clamp(channel.depth(), -1, Tr::maxDepth);
        bool any = false;
        for (int depth = low; depth <= high; ++depth) {
            if (tree_.tileCount(depth) == 0) continue;
            covered_[depth] = any = true;
            describeProperty(grid<T>(depth, name, channel.defaultValue(), fetch), channel, name);
        }
        // A property without a tile still has its name, type and default value.
        if (!any)
            describeProperty(grid<T>(low, name, channel.defaultValue(), [](TreeIndex const&, T*) { return false; }),
                             channel, name);
    }

    /// The tiles of depths where no property has values, as grids of zeros.
    std::vector<openvdb::GridBase::Ptr> take()
    {
        for (int depth = 0; depth <= Tr::maxDepth; ++depth) {
            if (covered_[depth] || tree_.tileCount(depth) == 0) continue;
            grid<int>(depth, "tiles", 0, [](TreeIndex const&, int* out) {
                std::fill_n(out, Tr::voxelCount, 0);
                return true;
            });
        }
        return std::move(grids_);
    }

private:
    template <class T>
    openvdb::GridBase& grid(int depth, std::string const& name, T const& background, FetchTile<T> fetch)
    {
        const LevelLattice<Tr> lattice(depth);
        const auto sink = makeGridSink<T>(background);
        std::array<T, Tr::voxelCount> values;
        OST::int64 tiles = 0;
        for (OST::int64 n = 0; n < tree_.tileCount(depth); ++n) {
            if (!fetch(TreeIndex{n, depth}, values.data())) continue;
            sink->setCube(lattice.index(tree_.tile(n, depth).tijk()), Tr::width, values.data());
            ++tiles;
        }
        const openvdb::GridBase::Ptr made = sink->grid();
        made->setName(name + ".depth" + std::to_string(depth));
        made->setTransform(lattice.transform(tree_.voxelSize(), topology_.offsetType()));
        made->insertMeta(levels::kVersionKey, openvdb::Int32Metadata(levels::kVersion));
        made->insertMeta(levels::kStructureKey, openvdb::StringMetadata(Tr::branching == 2 ? "binary" : "quinary"));
        made->insertMeta(levels::kVoxelSizeKey, openvdb::FloatMetadata(tree_.voxelSize()));
        made->insertMeta(levels::kOffsetKey, openvdb::Int32Metadata(topology_.offsetType()));
        made->insertMeta(levels::kErrorKey, openvdb::FloatMetadata(tree_.maxRelativeRefinementError()));
        made->insertMeta(levels::kDepthKey, openvdb::Int32Metadata(depth));
        made->insertMeta(levels::kTilesKey, openvdb::Int64Metadata(tiles));
        grids_.push_back(made);
        return *made;
    }
    template <class C> void describeProperty(openvdb::GridBase& grid, C const& channel, std::string const& name)
    {
        grid.insertMeta(levels::kPropertyKey, openvdb::StringMetadata(name));
        grid.insertMeta(levels::kInitializerKey, openvdb::Int32Metadata(channel.dataElementInitializerType()));
        grid.insertMeta(levels::kMinDepthKey, openvdb::Int32Metadata(channel.minDepth()));
        grid.insertMeta(levels::kMaxDepthKey, openvdb::Int32Metadata(channel.depth()));
        withGrid(grid, [&](auto const& typed) {
            using V = typename std::decay_t<decltype(typed)>::ValueType;
            if constexpr (std::is_same_v<ElementOf<V>, typename C::Element>)
                grid.insertMeta(levels::kDefaultKey, openvdb::TypedMetadata<V>(toGridValue<V>(channel.defaultValue())));
        });
    }

    Container<Tr> const& tree_;
    VoxelTopology<Tr> const& topology_;
    std::vector<openvdb::GridBase::Ptr> grids_;
    std::array<bool, Tr::levels> covered_{};
};

}  // namespace

std::vector<openvdb::GridBase::Ptr> levelGridsFromVolume(Ostara::Object const& volume,
                                                         Corvid::RuntimeServices const& services)
{
    return withTree(
        volume, [&]<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const& topology) {
            LevelWriter<Tr> writer(tree, topology);
            for (std::string const& name : propertyNames<Tr>(native)) {
                bool hasGrid = false;
                tryElements<Tr>(native, Corvid::String(name), [&]<class C>() {
                    if constexpr (hasGridType<typename C::Element>) {
                        writer.addProperty(*native.component<C>(Corvid::String(name)), name);
                        hasGrid = true;
                    }
                });
                if (!hasGrid)
                    services.message(Severity::kWarning, "property '" + name + "' is left out: its type has no grid");
            }
            return writer.take();
        });
}

}  // namespace tilegrid::io
