#pragma once
#include "TilegridOps/host/object.h"
#include "io/sample.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tilegrid::io {

/// 8-bit RGB, row by row from the top.
struct Image {
    int width = 0, height = 0;
    std::vector<std::uint8_t> rgb;
    void set(int x, int y, std::array<std::uint8_t, 3> colour);
};

/// Writes a PNG under a temporary name first. \throws InputError if the file cannot be written
void writePng(std::string const& path, Image const& image);

struct SliceOptions {
    /// 0, 1, 2: the plane is orthogonal to x, y, z.
    int axis = 2;
    /// Place of the plane between the low (0) and the high (1) side of the volume's content.
    double at = 0.5;
    /// Empty: the signed distance if there is one, else the fog density, else the first property.
    std::string property;
    /// Longer side in pixels.
    int size = 1024;
    /// What lies between samples. None: the value of the nearest one, as for types without a fraction always.
    std::optional<SampleMode> mode = SampleMode::kLinear;
    /// Each voxel shows so many values along an axis, each from the middle of its part; 0: every pixel its own.
    int cells = 0;
};

/// One plane of a property, read as a sampler reads it, in the finest tiles: diverging colours around zero, the zero line, and the tile borders by depth.
/// \throws InputError for a missing property (names the ones there are) or options out of range
Image sliceImage(Ostara::Object const& volume, SliceOptions const& options);

}  // namespace tilegrid::io
