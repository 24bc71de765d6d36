#pragma once
// Flat files, read with OpenVDB, and the values that they should have, found voxel by voxel.
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "io/depth_lattice.h"
#include "io/level_set_from_shape.h"
#include "io/vdb.h"
#include "io/volume_builder.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/structures.h"

#include <openvdb/openvdb.h>
#include <openvdb/tools/Diagnostics.h>

namespace tilegrid::test {

/// The grids of a file.
inline openvdb::GridPtrVec gridsIn(std::string const& path)
{
    openvdb::initialize();
    openvdb::io::File file(path);
    file.open();
    return *file.getGrids();
}

/// A grid of the flat file of a volume; null if it has none of that name and type.
template <class G = openvdb::FloatGrid>
typename G::Ptr flatGrid(Ostara::Object const& volume, std::string const& name, io::VdbWriteOptions const& options = {})
{
    const TestFolder folder;
    io::writeVdb(folder.file("flat.vdb"), volume, {}, options);
    for (auto const& grid : gridsIn(folder.file("flat.vdb")))
        if (grid->getName() == name && grid->isType<G>()) return openvdb::gridPtrCast<G>(grid);
    ADD_FAILURE() << "no grid '" << name << "'";
    return {};
}

template <class Tr> OST::TileTree3D::VoxelOffsetType offsetOf(Ostara::Object const& volume)
{
    return volume.native()
        ->template component<OST::TileTree3D::VoxelTopology<Tr>>(Ostara::Geometry::sVoxelComp)
        ->offsetType();
}

/// A property at voxels of the finest depth in use: their own bits, in coarser tiles what the library's linear sampler reads.
template <class Tr, class T = float> class FlatOracle {
    using int3 = Ostara::Math::int3;

public:
    explicit FlatOracle(Ostara::Object const& volume,
                        Corvid::String const& name = Ostara::Geometry::sVoxelSignedDistance)
        : tree_(treeOf<Tr>(volume)),
          channel_(channelOf<Tr, T>(volume, name)),
          lattice_(tree_->deepestDepth()),
          shift_(float(lattice_.width) * OST::TileTree3D::voxelOffset(offsetOf<Tr>(volume))),
          sampler_(
              *tree_,
              *volume.native()->template component<OST::TileTree3D::VoxelTopology<Tr>>(Ostara::Geometry::sVoxelComp),
              channel_.get())
    {}
    T at(openvdb::Coord const& c) const
    {
        const int3 place = lattice_.placeOf({c.x(), c.y(), c.z()});
        // In tiles of that depth the voxel itself: a NaN beside it is none of its business.
        const OST::TileTree3D::ConstTileAccessor<Tr> accessor(*tree_);
        auto const& tile = accessor.tileImpl(place.x, place.y, place.z, Tr::maxDepth);
        if (tile.depth() == lattice_.depth)
            return channel_->tileData(tile.treeIndex())(int3(c.x(), c.y(), c.z()) - lattice_.indexOf(tile.tijk()));
        return sampler_.sampleLinear(Ostara::Math::float3(place) + shift_, Tr::maxDepth, OST::TileTree3D::kTileSpace);
    }
    double voxelSize() const { return lattice_.width * double(tree_->voxelSize()); }

private:
    Corvid::Ptr<OST::TileTree3D::Container<Tr>> tree_;
    Corvid::Ptr<OST::TileTree3D::Channel<Tr, T, Tr::width, 0>> channel_;
    io::DepthLattice<Tr> lattice_;
    Ostara::Math::float3 shift_;
    OST::TileTree3D::VoxelSamplerLinear<Tr, T, 1, float, Ostara::Math::float3, 0, 0, 1, 0> sampler_;
};

/// A ball's level set with finer voxels in a box that its surface leaves.
template <class Tr> Corvid::Ptr<Ostara::Object> ballOfTwoDepths(float voxelSize = 0.2f)
{
    io::LevelSetOptions options;
    options.voxelSize = voxelSize;
    options.structure = structureOf<Tr>();
    options.finer = io::FinerBox{{0.3, -2, -2}, {2, 0.2, 2}, Tr::branching == 2 ? 2 : 1};
    return io::levelSetFromShape(io::Sphere{{0.05, 0.02, -0.03}, 1.0}, options);
}

/// A ball of 9 voxels with tiles of four depths at random, samples of any offset, and distances that are off by up to
/// `noise` finest voxels; 1 of 300 is a NaN, if asked for. World and tile space are one.
template <class Tr>
Corvid::Ptr<Ostara::Object> roughBall(std::uint64_t seed, OST::TileTree3D::VoxelOffsetType offset, double noise,
                                      bool nans)
{
    using namespace OST::TileTree3D;
    Random random(seed);
    std::vector<VoxelCoord> tiles;
    for (int n = 0; n < 40; ++n) {
        const int depth = Tr::maxDepth - int(random.below(3));
        int3 at;
        for (int axis = 0; axis < 3; ++axis) at[axis] = int(random.below(28)) - 14;
        tiles.emplace_back(at, depth);
    }
    auto native = io::makeVolume<Tr>(tiles, 1.0f, offset);
    io::addChannel<Tr>(*native, Ostara::Geometry::sVoxelSignedDistance, 3.0f,
                       [&](Container<Tr> const& tree, auto& channel) {
                           for (int depth = 0; depth <= Tr::maxDepth; ++depth)
                               for (OST::int64 n = 0; n < tree.tileCount(depth); ++n)
                                   for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                                       const double w = Tr::voxelDataWidth(depth);
                                       const double3 at = double3(tree.tile(n, depth).tijk())
                                           + w * (double3(cubeIndex(Tr::width, flat)) + double3(voxelOffset(offset)));
                                       const double off = noise * (double(random.below(2001)) / 1000 - 1);
                                       const bool isNan = nans && random.below(300) == 0;
                                       channel.tileData(n, depth)(flat) =
                                           isNan ? std::nanf("") : static_cast<float>(length(at) - 9.0 + off);
                                   }
                       });
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

}  // namespace tilegrid::test
