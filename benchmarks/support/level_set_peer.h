#pragma once
#include "TilegridOps/host/math.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace bench {

/// The peer's level set: OpenVDB's ways to distances, behind a plain interface. Lengths in voxels; half width of the band 3.
class LevelSetPeer {
public:
    enum class Way { kRebuild, kFastSweeping, kNormalize, kConverge, kOffset };
    /// Steps of normalisation that undo a factor of 1.7 over the whole band.
    static constexpr int kConverged = 40;

    /// \param values  at `places`, as all there is of the band; background 3, signs filled in
    LevelSetPeer(std::vector<Ostara::Math::int3> const& places, std::vector<float> const& values);
    LevelSetPeer(LevelSetPeer&&) noexcept;
    ~LevelSetPeer();

    /// levelSetRebuild to a half width of 3; FastSweeping's sdfToSdf, one iteration; three steps of WENO5 normalisation, or so many
    /// that it converges; or the offset filter, by `distance` outward. \return active voxels of the result
    std::uint64_t run(Way way, float distance = 0);
    /// Takes the result of the last run for the next one's input.
    void keep();
    /// The values of the last result; NaN where it is not active.
    std::vector<float> values(std::vector<Ostara::Math::int3> const& places) const;

private:
    struct Content;
    std::unique_ptr<Content> content_;
};

}  // namespace bench
