#include "io/check.h"
#include "io/text.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace tilegrid::io {

namespace {

using Json = nlohmann::ordered_json;

/// JSON has no name for an infinity.
Json numberOrNull(double value) { return std::isfinite(value) ? Json(value) : Json(nullptr); }

Json jsonOf(DependentCheck const& check)
{
    return {{"voxels", check.voxels}, {"wrong", check.wrong}, {"largest", numberOrNull(check.largest)}};
}

std::string textOf(DependentCheck const& check, std::string const& what)
{
    return std::to_string(check.wrong) + " of " + std::to_string(check.voxels) + " " + what + " wrong"
        + (check.wrong > 0 ? " (off by " + number(check.largest) + " at most)" : "");
}

Json jsonOf(std::vector<GradientCheck> const& gradient)
{
    Json json = Json::array();
    for (GradientCheck const& depth : gradient)
        json.push_back({{"depth", depth.depth},
                        {"voxels", depth.voxels},
                        {"mean", numberOrNull(depth.mean)},
                        {"median", numberOrNull(depth.median)},
                        {"largest", numberOrNull(depth.largest)},
                        {"steep",
                         {{"voxels", depth.steep.voxels},
                          {"near_kink", depth.steep.nearKink},
                          {"median_to_crease", numberOrNull(depth.steep.medianToCrease)},
                          {"largest_to_crease", numberOrNull(depth.steep.largestToCrease)}}}});
    return json;
}

/// A share in percent.
std::string percent(std::int64_t part, std::int64_t whole)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.3g %%", 100.0 * double(part) / double(whole));
    return text.data();
}

std::string textOf(std::vector<GradientCheck> const& gradient)
{
    std::ostringstream out;
    for (GradientCheck const& depth : gradient) {
        out << "gradient    depth " << depth.depth << ": " << depth.voxels << " voxels of the band, off 1 by " << number(depth.mean)
            << " on average, " << number(depth.median) << " in the median, " << number(depth.largest) << " at most\n";
        SteepVoxels const& steep = depth.steep;
        if (steep.voxels == 0) continue;
        out << "            above " << number(GradientCheck::kSteep) << ": " << steep.voxels << " (" << percent(steep.voxels, depth.voxels) << "), "
            << percent(steep.nearKink, steep.voxels) << " of these within " << number(SteepVoxels::kNear) << " voxels of a kink, ";
        if (std::isfinite(steep.medianToCrease))
            out << number(steep.medianToCrease) << " voxels from a crease in the median, " << number(steep.largestToCrease) << " at most\n";
        else
            out << "and no crease anywhere\n";
    }
    return out.str();
}

}  // namespace

std::string toJson(SlopeReport const& report)
{
    return Json{{"gradient", jsonOf(report.gradient)}}.dump(2) + "\n";
}
std::string toText(SlopeReport const& report)
{
    return report.gradient.empty() ? "gradient    no voxel of the band has all its neighbours\n" : textOf(report.gradient);
}

bool VolumeCheck::good() const { return faultsOf(*this).empty(); }

std::string faultsOf(VolumeCheck const& check)
{
    std::vector<std::string> faults;
    if (!check.tree.empty())
        faults.push_back("the tree is broken in " + std::to_string(check.tree.size())
                         + (check.tree.size() == 1 ? " place" : " places"));
    if (!check.graded && check.rule == GradingRule::kRequired)
        faults.push_back("tiles that touch differ by two levels or more (grade_volume adds the missing ones)");
    for (PropertyCheck const& property : check.properties) {
        if (property.aboveChildren.wrong > 0)
            faults.push_back("property '" + property.name + "' has " + std::to_string(property.aboveChildren.wrong)
                             + " voxels above children without the child's value");
        if (property.hanging && property.hanging->wrong > 0)
            faults.push_back("property '" + property.name + "' has " + std::to_string(property.hanging->wrong)
                             + " hanging voxels far from what is interpolated there");
    }
    std::string text;
    for (std::string const& fault : faults) text += (text.empty() ? "" : "; ") + fault;
    return text;
}

std::string toJson(VolumeCheck const& check)
{
    Json json = {{"good", check.good()}, {"tiles", check.tiles}, {"tree", check.tree}, {"graded", check.graded}};
    json["grading_fault"] = check.graded ? Json(nullptr) : Json(check.gradingFault);
    json["properties"] = Json::array();
    for (PropertyCheck const& property : check.properties)
        json["properties"].push_back({{"name", property.name},
                                      {"above_children", jsonOf(property.aboveChildren)},
                                      {"hanging", property.hanging ? jsonOf(*property.hanging) : Json(nullptr)}});
    json["gradient"] = jsonOf(check.gradient);
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string toText(VolumeCheck const& check)
{
    constexpr std::size_t kMostLines = 10;
    std::ostringstream out;
    out << "tree        " << check.tiles << " tiles, ";
    if (check.tree.empty())
        out << "links, places and sizes right\n";
    else
        out << check.tree.size() << " faults\n";
    for (std::size_t n = 0; n < std::min(check.tree.size(), kMostLines); ++n) out << "            " << check.tree[n] << "\n";
    if (check.tree.size() > kMostLines) out << "            ...\n";
    if (check.tree.empty())
        out << "grading     "
            << (check.graded ? "tiles that touch differ by one level at most"
                             : "tiles that touch differ by two levels or more, first " + check.gradingFault
                                   + " (grade_volume adds the missing ones)")
            << "\n";
    for (PropertyCheck const& property : check.properties) {
        out << "property    " << property.name << ": " << textOf(property.aboveChildren, "voxels above children");
        if (property.hanging) out << ", " << textOf(*property.hanging, "hanging voxels");
        out << "\n";
    }
    out << textOf(check.gradient);
    const std::string faults = faultsOf(check);
    const std::string good = check.graded ? "good" : "good, but not graded";
    out << "verdict     " << (faults.empty() ? good : "wrong: " + faults) << "\n";
    return out.str();
}

}  // namespace tilegrid::io
