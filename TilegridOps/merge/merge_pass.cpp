#include "TilegridOps/merge/merge_pass.h"

#include "TilegridOps/merge/fold.h"
#include "TilegridOps/substrate/traversal.h"

#include <algorithm>

namespace tilegrid {

using namespace OST::TileTree3D;
using Geometry::Volume::LevelSetMode;
using Geometry::Volume::Properties::Mode;
using OST::int64;

/// One thread's copy of the steps, with room for the samples of a tile.
template <class Tr> class MergePass<Tr>::Worker {
public:
    using Tile = typename Container<Tr>::Tile;
    /// \param childrenFirst  children were done before, and their values are the tile's where both have a voxel
    Worker(std::vector<Step> const& steps, bool childrenFirst) : steps_(steps), childrenFirst_(childrenFirst)
    {
        if (childrenFirst_)
            for (Step& step : steps_) step.reader.leaveChildrenOut();
    }

    void operator()(Tile const& tile)
    {
        if (!childrenFirst_ || !isFull(tile)) sample(tile);
        if (!childrenFirst_ || tile.isLeaf()) return;
        for (Step& step : steps_)
            if (step.work == Work::kResample || step.work == Work::kFirstLevelSet) takeFromChildren(tile, *step.target);
    }

private:
    void sample(Tile const& tile)
    {
        winners_.fill(0);
        for (Step& step : steps_)
            if (std::byte* values = step.target->tileBytes(tile.index(), tile.depth())) {
                step.reader.seek(tile);
                run(step, values);
            }
        fetchPostponed();
    }
    /// Whether all of the tile's voxels are repeated by children.
    static bool isFull(Tile const& tile)
    {
        int64 const* children = tile.childIndices();
        return !tile.isLeaf() && std::all_of(children, children + Tr::childCount, [](int64 child) { return child >= 0; });
    }
    static void takeFromChildren(Tile const& tile, Channel& target)
    {
        constexpr int C = Tr::cellVoxels;
        const std::size_t bytes = target.elementBytes();
        std::byte* values = target.tileBytes(tile.index(), tile.depth());
        if (!values) return;
        for (int cell = 0; cell < Tr::childCount; ++cell) {
            if (tile.childIndex(cell) < 0) continue;
            std::byte const* child = target.tileBytes(tile.childIndex(cell), tile.depth() + 1);
            const int3 first = C * cubeIndex(Tr::branching, cell);
            for (int n = 0; n < C * C * C && child; ++n) {
                const int3 within = cubeIndex(C, n), to = first + within, from = Tr::childStride * within;
                copyElement(values + std::size_t(flatIndex(Tr::width, to.x, to.y, to.z)) * bytes,
                            child + std::size_t(flatIndex(Tr::width, from.x, from.y, from.z)) * bytes, bytes);
            }
        }
    }
    void run(Step& step, std::byte* values)
    {
        switch (step.work) {
            case Work::kResample: return step.reader.read(values);
            case Work::kFirstLevelSet: return startLevelSet(step, as<float>(values));
            case Work::kLevelSet:
            case Work::kLevelSetWithWinners: return mergeLevelSet(step, as<float>(values));
            case Work::kProperty: return foldElements(step, step.reader.elements(samples_.data()), values);
        }
    }
    /// Values that come from a coarser tile cost the most, and those of the next volume often hide them all: they wait.
    void startLevelSet(Step& step, float* values)
    {
        if (step.reader.bounds(bounds_.low, bounds_.high))
            postponed_ = &step, postponedValues_ = values;
        else
            step.reader.read(asBytes(values));
    }
    void fetchPostponed()
    {
        if (postponed_) postponed_->reader.read(asBytes(postponedValues_));
        postponed_ = nullptr;
    }
    void mergeLevelSet(Step& step, float* values)
    {
        const bool notesWinners = step.work == Work::kLevelSetWithWinners;
        if (ValueBounds bounds; step.reader.bounds(bounds.low, bounds.high)) {
            fetchPostponed();
            if (keepsLevelSet(step.levelSetMode, values, bounds, notesWinners, Tr::voxelCount)) {
                if (notesWinners) winners_.fill(0);
                return;
            }
        }
        auto const* samples = reinterpret_cast<float const*>(step.reader.elements(samples_.data()));
        if (postponed_ && replacesLevelSet(step.levelSetMode, bounds_, samples, Tr::voxelCount)) {
            replaceLevelSet(step.levelSetMode, values, samples, Tr::voxelCount);
            if (notesWinners) winners_.fill(1);
            postponed_ = nullptr;
            return;
        }
        fetchPostponed();
        if (notesWinners)
            foldLevelSet(step.levelSetMode, values, samples, winners_.data(), Tr::voxelCount);
        else
            foldLevelSet(step.levelSetMode, values, samples, Tr::voxelCount);
    }
    void foldElements(Step const& step, std::byte const* samples, std::byte* values)
    {
        const int numbers = step.kind.components * Tr::voxelCount;
        if (step.mode == Mode::kAutomatic)
            foldWinners(values, samples, winners_.data(), step.target->elementBytes(), Tr::voxelCount);
        else if (step.kind.isDouble)
            foldProperty(step.mode, step.alpha, as<double>(values), reinterpret_cast<double const*>(samples), numbers);
        else
            foldProperty(step.mode, step.alpha, as<float>(values), reinterpret_cast<float const*>(samples), numbers);
    }
    template <class T> static T* as(std::byte* bytes) { return reinterpret_cast<T*>(bytes); }
    static std::byte* asBytes(float* values) { return reinterpret_cast<std::byte*>(values); }

    std::vector<Step> steps_;
    bool childrenFirst_;
    /// A first level set that is not read yet, where its values go and what is known of them.
    Step* postponed_ = nullptr;
    float* postponedValues_ = nullptr;
    ValueBounds bounds_{};
    std::array<signed char, Tr::voxelCount> winners_{};
    alignas(64) std::array<std::byte, TileReader<Tr>::kMostBytes> samples_{};
};

template <class Tr> void MergePass<Tr>::resampleProperty(Channel& target, TileReader<Tr> reader)
{
    steps_.push_back({Work::kResample, &target, std::move(reader), {}, {}, {}, 0.0f});
}

template <class Tr> void MergePass<Tr>::resampleLevelSet(Channel& target, TileReader<Tr> reader)
{
    steps_.push_back({Work::kFirstLevelSet, &target, std::move(reader), {}, {}, {}, 0.0f});
}

template <class Tr>
void MergePass<Tr>::mergeLevelSet(Channel& target, TileReader<Tr> reader, LevelSetMode mode, bool notesWinners)
{
    steps_.push_back({notesWinners ? Work::kLevelSetWithWinners : Work::kLevelSet, &target, std::move(reader), {}, mode, {}, 0.0f});
}

template <class Tr>
void MergePass<Tr>::mergeProperty(Channel& target, TileReader<Tr> reader, ElementKind const& kind, Mode mode, float alpha)
{
    steps_.push_back({Work::kProperty, &target, std::move(reader), kind, {}, mode, alpha});
}

template <class Tr> void MergePass<Tr>::run(Container<Tr> const& tree) const
{
    if (steps_.empty()) return;
    const bool agree = std::all_of(steps_.begin(), steps_.end(), [](Step const& step) { return step.reader.agreesBetweenDepths(); });
    tree.traverse(detail::Nothing(), detail::Nothing(), Worker(steps_, agree), detail::Nothing(), detail::Nothing(),
                  agree ? kBottomUp : kParallelTree);
}

template class MergePass<BinaryTraits>;
template class MergePass<QuinaryTraits>;

}  // namespace tilegrid
