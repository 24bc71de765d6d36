#pragma once
#include "TilegridOps/host/math.h"
#include "io/view.h"

namespace tilegrid::io {

/// A half line. The direction has length 1.
struct Ray {
    Ostara::Math::double3 origin, direction;
    Ostara::Math::double3 at(double t) const { return origin + t * direction; }
    /// Cuts the part from `from` to `to` to that in a box. \return whether any is left
    bool clip(Ostara::Math::double3 const& low, Ostara::Math::double3 const& high, double& from, double& to) const;
    /// Where the ray leaves the cell that holds `place`, of a lattice of cells `width` wide that begins at `begin` on every axis.
    double leavesCell(Ostara::Math::double3 const& place, double width, double begin) const;
};

/// A rectangle of the plane at distance 1 from a camera, x to the right and y up. Empty until something is added.
struct Frame {
    double left = 1e300, right = -1e300, low = 1e300, high = -1e300;
    bool empty() const { return !(left <= right && low <= high); }
    void add(double x, double y, double around = 0.0)
    {
        left = x - around < left ? x - around : left, right = x + around > right ? x + around : right;
        low = y - around < low ? y - around : low, high = y + around > high ? y + around : high;
    }
    void add(Frame const& other)
    {
        if (other.empty()) return;
        add(other.left, other.low);
        add(other.right, other.high);
    }
};

/// A perspective picture of what lies in a box.
class Camera {
public:
    using double3 = Ostara::Math::double3;

    /// \param low, high  of the box; low below high along at least one axis. What lies in it is in front of the camera
    Camera(double3 const& low, double3 const& high, View const& view);
    /// Adds the place where something is seen, and what lies no further than `around` beside it.
    void add(Frame& frame, double3 const& place, double around = 0.0) const;
    /// Makes the frame the picture, with a margin. Before, there are no pixels.
    /// \param wide, tall  the picture is as large as fits into so many pixels
    void fit(Frame const& frame, int wide, int tall);

    int width() const { return width_; }
    int height() const { return height_; }
    double3 const& right() const { return right_; }
    double3 const& up() const { return up_; }
    /// From what is seen to the camera.
    double3 const& back() const { return back_; }

    /// The ray through a place of the picture: pixels from its left and upper side, middles at one half.
    Ray ray(double x, double y) const;
    /// What a pixel covers at a distance from the camera, seen head-on.
    double footprint(double distance) const { return step_ * distance; }

private:
    double3 right_, up_, back_, eye_;
    int width_ = 0, height_ = 0;
    /// Places of the picture in a plane at distance 1: the left upper corner, and the side of a pixel.
    double left_ = 0.0, top_ = 0.0, step_ = 1.0;
};

}  // namespace tilegrid::io
