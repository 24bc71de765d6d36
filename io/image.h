#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tilegrid::io {

/// A picture of 8-bit red, green and blue (sRGB), row by row from the top: 3 * width * height bytes.
struct Image {
    int width = 0, height = 0;
    std::vector<std::uint8_t> rgb;
    /// Colours the pixel in column x and row y, which must lie in the picture.
    void set(int x, int y, std::array<std::uint8_t, 3> colour);
};

/// Writes a PNG under a temporary name first, so that an old file stays until the new one is complete.
/// \throws InputError for a picture without pixels or whose bytes do not match its size, and if the file cannot be written
void writePng(std::string const& path, Image const& image);

}  // namespace tilegrid::io
