#pragma once
#include <array>
#include <string_view>

namespace tilegrid::nodes {

enum class Prototype { kNone, kVolume, kLevelSet };

/// What differs between the frames of nodes.
struct NodeSpec {
    /// Plain name, under which a cancellation is reported.
    std::string_view name;
    /// Whether it switches the channel pool on.
    bool enablesPool = false;
    /// Name of the node's timer, empty for none.
    std::string_view timer;
    /// What the input must be, and what is said if it is not.
    Prototype prototype = Prototype::kNone;
    std::string_view typeError;
    /// The timer does not run for a job that is cancelled from the start.
    bool timesLate = false;
};

/// One row a node.
inline constexpr std::array kNodeTable{
    NodeSpec{"analyze_volume", true, "Volume::analyze_volume", Prototype::kVolume, "Input 'volume' is not a volume."},
    NodeSpec{"coarsen_voxel_property", false, "Volume::coarsen_voxel_property", Prototype::kVolume, "Input 'volume' is not a volume."},
    NodeSpec{"compute_volume_depth", false, "Volume::compute_volume_depth", Prototype::kNone, ""},
    NodeSpec{"create_empty_volume", false, "", Prototype::kNone, "Input 'detail_size' must be non-zero."},
    NodeSpec{"get_volume_tile_info", false, "", Prototype::kVolume, "Input 'volume' is not a volume."},
    NodeSpec{"get_voxel_count", false, "", Prototype::kVolume, "Input 'volume' is not a volume."},
    NodeSpec{"get_voxel_size", false, "", Prototype::kVolume, "Input 'volume' is not a volume."},
    NodeSpec{"grade_volume", false, "", Prototype::kVolume, "Input 'volume' is not a volume."},
    NodeSpec{"merge_volumes_internal", false, "Geometry::Volume::merge_volumes", Prototype::kVolume,
             "Input 'volumes' contains an object that is not a volume."},
    NodeSpec{"rebuild_level_set", false, "Geometry::Volume::rebuild_level_set", Prototype::kVolume, "Input 'volume' is not a volume.",
             /*timesLate*/ true},
    NodeSpec{"remap_property", false, "", Prototype::kVolume, "Input 'geometry' is not a volume."},
    NodeSpec{"resample_volume", false, "", Prototype::kNone, ""},
    NodeSpec{"resize_level_set", false, "Volume::resize_level_set", Prototype::kLevelSet, "Input 'level_set' is not a volume."},
    NodeSpec{"scale_property", false, "", Prototype::kVolume, "Input 'geometry' is not a volume."},
    NodeSpec{"set_voxel_size", false, "", Prototype::kVolume, "Input 'volume' is not a volume."},
    NodeSpec{"splat_points_into_volume", false, "Geometry::Volume::splat_points_into_volume", Prototype::kVolume,
             "Input 'volume' is not a volume."},
    NodeSpec{"update_voxel_position", false, "", Prototype::kVolume, "Input 'volume' is not a volume."},
    NodeSpec{"validate_volume", false, "", Prototype::kVolume, ""},
    NodeSpec{"volume_bounds", false, "", Prototype::kVolume, "Input 'volume' is not a volume."},
};

/// The row of a node; a name without one does not compile.
consteval NodeSpec const& nodeSpec(std::string_view name)
{
    for (NodeSpec const& row : kNodeTable)
        if (row.name == name) return row;
    throw "no such node";
}

}  // namespace tilegrid::nodes
