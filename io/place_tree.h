#pragma once
#include "TilegridOps/host/math.h"

#include <vector>

namespace tilegrid::io {

/// Finds the nearest of many places. Immutable and safe to ask from many threads.
class PlaceTree {
public:
    /// \param places  finite; none are allowed
    explicit PlaceTree(std::vector<Ostara::Math::double3> places);

    /// The distance to the nearest place, at most `limit`: an infinite one finds it however far it is.
    double distance(Ostara::Math::double3 const& from, double limit) const;
    bool empty() const { return places_.empty(); }

private:
    void sort(std::size_t begin, std::size_t end, int axis);
    void search(Ostara::Math::double3 const& from, std::size_t begin, std::size_t end, int axis, double& squared) const;

    /// The middle one of a range parts it along the axis; the halves go on with the next axis.
    std::vector<Ostara::Math::double3> places_;
};

}  // namespace tilegrid::io
