#include "graph/error.h"
#include "graph/files.h"
#include "graph/node_families.h"
#include "graph/suggest.h"
#include "io/render.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>

namespace tilegrid::graph {

namespace {

struct NamedView {
    char const* name;
    io::View view;
};
constexpr NamedView kViews[] = {{"front", {0, 0}},  {"back", {180, 0}}, {"left", {-90, 0}},
                                {"right", {90, 0}}, {"top", {0, 90}},   {"bottom", {0, -90}}};

/// The whole text as a number.
std::optional<double> numberIn(std::string_view text)
{
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return {};
    return value;
}

io::View viewOf(std::string const& text)
{
    std::vector<std::string> names;
    for (NamedView const& named : kViews) {
        if (text == named.name) return named.view;
        names.push_back(named.name);
    }
    const std::size_t comma = text.find(',');
    if (comma != std::string::npos) {
        const auto azimuth = numberIn(std::string_view(text).substr(0, comma)),
                   elevation = numberIn(std::string_view(text).substr(comma + 1));
        if (azimuth && elevation && std::abs(*elevation) <= 90) return {*azimuth, *elevation};
    }
    throw UsageError("'view': '" + text + "' is neither one of " + listed(names)
                     + " nor two angles in degrees, the second from -90 to 90, as in 30,20." + suggestion(text, names));
}

}  // namespace

ParameterInfo upAxisParameter()
{
    return {.name = "up",
            .type = ParameterType::kEnum,
            .help = "the axis of the world that points up in the picture",
            .defaultText = "y",
            .choices = {"y", "z"}};
}

io::UpAxis upAxisOf(Arguments const& arguments) { return arguments.choice("up") == 0 ? io::UpAxis::kY : io::UpAxis::kZ; }

ParameterInfo legendParameter()
{
    return {.name = "legend",
            .type = ParameterType::kBool,
            .help = "whether what explains the colours and the axes stands beside the picture; not in pictures of less than 240 pixels",
            .defaultText = "yes"};
}

namespace {

Result runRender(StepContext& step)
{
    std::string const &colour = step.arguments.text("color"), &file = step.arguments.text("file");
    io::RenderOptions options;
    options.size = int(step.arguments.integer("size"));
    options.view = viewOf(step.arguments.text("view"));
    options.view.up = upAxisOf(step.arguments);
    options.as = io::RenderAs(step.arguments.choice("draw"));
    options.opacity = step.arguments.number("opacity");
    options.legend = step.arguments.flag("legend");
    if (colour == "plain" || colour == "depth" || colour == "normal") {
        options.colour = colour == "depth" ? io::SurfaceColour::kDepth
            : colour == "normal"           ? io::SurfaceColour::kNormal
                                           : io::SurfaceColour::kPlain;
    } else {
        requireProperty(step.volume(), colour);
        options.colour = io::SurfaceColour::kProperty;
        options.property = colour;
    }
    const io::Image image = io::renderImage(*step.volume().volume, options);
    // A cancelled run must not replace a file any more.
    if (Corvid::isJobCancelled()) return {};
    createParentFolders(file);
    io::writePng(file, image);
    return {};
}

}  // namespace

std::vector<NodeInfo> renderNodes()
{
    NodeInfo node{.name = "render",
                  .help = "draws the surface of a level set, or fog, lit and seen from a side, as a picture",
                  .hasResult = false,
                  .run = runRender};
    node.inputs = {{.name = "volume", .help = "a volume with a signed distance or a fog density"}};
    node.parameters = {
        {.name = "file",
         .type = ParameterType::kOutputFile,
         .help = "the picture",
         .positional = true,
         .endings = {".png"}},
        {.name = "size",
         .type = ParameterType::kInt,
         .help = "longer side of the picture; the other follows from the content",
         .unit = "pixels",
         .defaultText = "1024",
         .range = {.min = 16, .max = 4096}},
        {.name = "view",
         .help = "front (along -z, y up; along y with up=z), back, left, right, top, bottom; or two angles in degrees: how far the camera "
                 "walks from the front around "
                 "the axis that points up, towards x, and how far it climbs",
         .defaultText = "-30,20"},
        {.name = "color",
         .help = "plain; depth: one tone for each voxel size, with the tile borders; normal: the direction of the "
                 "surface; or a property: three "
                 "components as red, green, blue, others on a scale from the least to the largest value seen",
         .defaultText = "plain"},
        {.name = "draw",
         .type = ParameterType::kEnum,
         .help = "what is drawn; auto: the surface if there is a signed distance, else the fog",
         .defaultText = "auto",
         .choices = {"auto", "surface", "fog"}},
        {.name = "opacity",
         .type = ParameterType::kFloat,
         .help = "how opaque fog is: what passes its largest density along a twentieth of the longest side loses this many e-folds of "
                 "its light",
         .defaultText = "1.5",
         .range = {.min = 0, .aboveMin = true}},
        upAxisParameter(),
        legendParameter(),
    };
    return {node};
}

}  // namespace tilegrid::graph
