#include "io/render.h"

#include "TilegridOps/host/geometry.h"
#include "io/legend.h"
#include "io/render_parts.h"
#include "io/render_shading.h"
#include "io/text.h"

#include <cmath>

namespace tilegrid::io {

namespace {

constexpr int kSmallestSide = 16, kLargestSide = 4096;
/// The longest part of a property's name above its bar, in heights of a letter.
constexpr double kLongestTitle = 16.0;

void checkOptions(RenderOptions const& options)
{
    if (options.size < kSmallestSide || options.size > kLargestSide)
        throw InputError("the size of a picture lies between " + std::to_string(kSmallestSide) + " and "
                         + std::to_string(kLargestSide) + " pixels");
    if (!std::isfinite(options.view.azimuth) || !(std::abs(options.view.elevation) <= 90.0))
        throw InputError("the angles of a view are finite, and the second lies between -90 and 90 degrees");
    if (!(options.opacity > 0.0) || !std::isfinite(options.opacity)) throw InputError("the opacity of fog is positive and finite");
}

bool hasProperty(Ostara::Object const& volume, Corvid::String const& name)
{
    return withTree(volume, [&]<class Tr>(OST::Object const& native, auto const&, auto const&) {
        const auto nothing = []<class C>() {};
        return tryLayouts<Tr, float>(native, name, nothing);
    });
}

bool drawsFog(Ostara::Object const& volume, RenderOptions const& options)
{
    if (options.as != RenderAs::kAutomatic) return options.as == RenderAs::kFog;
    return !hasProperty(volume, Ostara::Geometry::sVoxelSignedDistance) && hasProperty(volume, Ostara::Geometry::sVoxelFogDensity);
}

/// A legend to the right of a picture.
class RenderLegend {
public:
    RenderLegend(Ostara::Object const& volume, RenderOptions const& options) : style_(options.size)
    {
        if (!options.legend || options.size < LegendStyle::kSmallestPicture) return;
        isList_ = options.colour == SurfaceColour::kDepth || options.colour == SurfaceColour::kNormal;
        isBar_ = options.colour == SurfaceColour::kProperty && colourReaders(volume, options).components != 3;
        if (isList_) title_ = options.colour == SurfaceColour::kDepth ? "voxel size" : "normal";
        if (isBar_) title_ = shortened(options.property, style_.letter, kLongestTitle * style_.letter);
        // The longest text that a number has.
        if (isList_ || isBar_)
            room_ = int(std::ceil(4.0 * style_.gap + std::max(textWidth(title_, style_.letter),
                                                              1.6 * style_.letter + textWidth("-0.00000", style_.letter))));
    }

    int room() const { return room_; }

    Image beside(Rendered const& picture, RenderOptions const& options, bool fog) const
    {
        if (room_ == 0) return picture.image;
        const int height = picture.image.height;
        Image image = withMargins(picture.image, 0, 0, room_, 0,
                                  [&](int y) { return toBytes(fog ? fogBackgroundAt((y + 0.5) / height) : backgroundAt((y + 0.5) / height)); });
        const double x = picture.image.width + style_.gap, top = 2.0 * style_.gap;
        if (isList_) {
            drawColourList(image, x, top, options.colour == SurfaceColour::kDepth ? voxelSizes(picture) : directions(), style_);
        } else {
            ColourBar bar;
            bar.low = picture.range.low, bar.high = picture.range.high, bar.title = title_;
            bar.colour = [&picture](double value) { return toBytes(scaleMaterial(picture.range.shareOf(float(value)))); };
            drawColourBar(image, x, top, std::min(height - top, top + 32.0 * style_.letter), bar, style_);
        }
        return image;
    }

private:
    ColourList voxelSizes(Rendered const& picture) const
    {
        ColourList list{title_, {}};
        for (Rendered::VoxelSize const& voxels : picture.voxelSizes)
            list.rows.push_back({toBytes(depthMaterial(voxels.coarser)), shortNumber(voxels.size)});
        return list;
    }
    ColourList directions() const
    {
        return {title_, {{{255, 128, 128}, "+x"}, {{128, 255, 128}, "+y"}, {{128, 128, 255}, "+z"}}};
    }

    LegendStyle style_;
    bool isList_ = false, isBar_ = false;
    std::string title_;
    int room_ = 0;
};

}  // namespace

Image renderImage(Ostara::Object const& volume, RenderOptions const& options)
{
    checkOptions(options);
    const bool fog = drawsFog(volume, options);
    const RenderLegend legend(volume, options);
    const PictureRoom room{options.size - legend.room(), options.size};
    return legend.beside(fog ? renderFog(volume, options, room) : renderSurface(volume, options, room), options, fog);
}

}  // namespace tilegrid::io
