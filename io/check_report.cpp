#include "io/check.h"
#include "io/text.h"

#include <nlohmann/json.hpp>

#include <cmath>
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
    return std::to_string(check.wrong) + " of " + std::to_string(check.voxels) + " " + what + " wrong (off by "
        + number(check.largest) + " at most)";
}

}  // namespace

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
    json["gradient"] = Json::array();
    for (GradientCheck const& depth : check.gradient)
        json["gradient"].push_back({{"depth", depth.depth},
                                    {"voxels", depth.voxels},
                                    {"mean", numberOrNull(depth.mean)},
                                    {"largest", numberOrNull(depth.largest)}});
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
    for (GradientCheck const& depth : check.gradient)
        out << "gradient    depth " << depth.depth << ": " << depth.voxels << " voxels of the band, off 1 by "
            << number(depth.mean) << " on average, " << number(depth.largest) << " at most\n";
    const std::string faults = faultsOf(check);
    const std::string good = check.graded ? "good" : "good, but not graded";
    out << "verdict     " << (faults.empty() ? good : "wrong: " + faults) << "\n";
    return out.str();
}

}  // namespace tilegrid::io
