#include "io/camera.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace tilegrid::io {

using Ostara::Math::double3;

namespace {

/// Half of the angle under which the ball around the box is seen, in degrees: little perspective.
constexpr double kHalfAngle = 13.0;
/// Share of the content's longer side that is left on each side of it.
constexpr double kMargin = 0.06;
constexpr double kPerDegree = std::numbers::pi / 180.0;

}  // namespace

bool Ray::clip(double3 const& low, double3 const& high, double& from, double& to) const
{
    for (int axis = 0; axis < 3; ++axis) {
        const double below = low[axis] - origin[axis], above = high[axis] - origin[axis], along = direction[axis];
        if (along == 0.0) {
            if (below > 0.0 || above < 0.0) return false;
            continue;
        }
        from = std::max(from, (along > 0.0 ? below : above) / along);
        to = std::min(to, (along > 0.0 ? above : below) / along);
    }
    return from < to;
}

double Ray::leavesCell(double3 const& place, double width, double begin) const
{
    double t = std::numeric_limits<double>::infinity();
    for (int axis = 0; axis < 3; ++axis) {
        const double along = direction[axis];
        if (along == 0.0) continue;
        const double low = begin + std::floor((place[axis] - begin) / width) * width;
        t = std::min(t, ((along > 0.0 ? low + width : low) - origin[axis]) / along);
    }
    return t;
}

Camera::Camera(double3 const& low, double3 const& high, View const& view)
{
    const double a = view.azimuth * kPerDegree, e = view.elevation * kPerDegree;
    // From axes to the right, up and to the viewer to those of the world.
    const auto inWorld = [&view](double right, double up, double toViewer) {
        return view.up == UpAxis::kY ? double3(right, up, toViewer) : double3(right, -toViewer, up);
    };
    back_ = inWorld(std::sin(a) * std::cos(e), std::sin(e), std::cos(a) * std::cos(e));
    right_ = inWorld(std::cos(a), 0.0, -std::sin(a));
    up_ = cross(back_, right_);
    eye_ = 0.5 * (low + high) + (0.5 * length(high - low) / std::sin(kHalfAngle * kPerDegree)) * back_;
}

void Camera::add(Frame& frame, double3 const& place, double around) const
{
    const double3 way = place - eye_;
    const double away = -dot(way, back_);
    frame.add(dot(way, right_) / away, dot(way, up_) / away, around / away);
}

void Camera::fit(Frame const& frame, int wide, int tall)
{
    const double width = frame.right - frame.left, height = frame.high - frame.low, margin = kMargin * std::max(width, height);
    step_ = std::max((width + 2.0 * margin) / wide, (height + 2.0 * margin) / tall);
    width_ = std::clamp(static_cast<int>(std::lround((width + 2.0 * margin) / step_)), 1, wide);
    height_ = std::clamp(static_cast<int>(std::lround((height + 2.0 * margin) / step_)), 1, tall);
    left_ = 0.5 * (frame.left + frame.right) - 0.5 * width_ * step_;
    top_ = 0.5 * (frame.low + frame.high) + 0.5 * height_ * step_;
}

Ray Camera::ray(double x, double y) const
{
    const double3 way = (left_ + x * step_) * right_ + (top_ - y * step_) * up_ - back_;
    return {eye_, (1.0 / length(way)) * way};
}

}  // namespace tilegrid::io
