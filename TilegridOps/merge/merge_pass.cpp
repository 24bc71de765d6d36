#include "TilegridOps/merge/merge_pass.h"

#include "TilegridOps/merge/fold.h"
#include "TilegridOps/substrate/traversal.h"

namespace tilegrid {

using namespace OST::TileTree3D;
using Geometry::Volume::LevelSetMode;
using Geometry::Volume::Properties::Mode;

/// One thread's copy of the steps, with room for the samples of a tile.
template <class Tr> class MergePass<Tr>::Worker {
public:
    using Tile = typename Container<Tr>::Tile;
    explicit Worker(std::vector<Step> const& steps) : steps_(steps) {}

    void operator()(Tile const& tile)
    {
        winners_.fill(0);
        for (Step& step : steps_)
            if (std::byte* values = step.target->tileBytes(tile.index(), tile.depth())) run(step, tile, values);
    }

private:
    void run(Step& step, Tile const& tile, std::byte* values)
    {
        if (step.work == Work::kResample) return step.reader.read(tile, values);
        step.reader.read(tile, samples_.data());
        switch (step.work) {
            case Work::kResample: return;
            case Work::kLevelSet: return foldLevelSet(step.levelSetMode, as<float>(values), as<float>(samples_.data()), Tr::voxelCount);
            case Work::kLevelSetWithWinners:
                return foldLevelSet(step.levelSetMode, as<float>(values), as<float>(samples_.data()), winners_.data(), Tr::voxelCount);
            case Work::kProperty: return foldElements(step, values);
        }
    }
    void foldElements(Step const& step, std::byte* values)
    {
        const int numbers = step.kind.components * Tr::voxelCount;
        if (step.mode == Mode::kAutomatic)
            foldWinners(values, samples_.data(), winners_.data(), step.target->elementBytes(), Tr::voxelCount);
        else if (step.kind.isDouble)
            foldProperty(step.mode, step.alpha, as<double>(values), as<double>(samples_.data()), numbers);
        else
            foldProperty(step.mode, step.alpha, as<float>(values), as<float>(samples_.data()), numbers);
    }
    template <class T> static T* as(std::byte* bytes) { return reinterpret_cast<T*>(bytes); }

    std::vector<Step> steps_;
    std::array<signed char, Tr::voxelCount> winners_{};
    alignas(64) std::array<std::byte, TileReader<Tr>::kMostBytes> samples_{};
};

template <class Tr> void MergePass<Tr>::resampleProperty(Channel& target, TileReader<Tr> reader)
{
    steps_.push_back({Work::kResample, &target, std::move(reader), {}, {}, {}, 0.0f});
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
    tree.traverse(detail::Nothing(), detail::Nothing(), Worker(steps_), detail::Nothing(), detail::Nothing());
}

template class MergePass<BinaryTraits>;
template class MergePass<QuinaryTraits>;

}  // namespace tilegrid
