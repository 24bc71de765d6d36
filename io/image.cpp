#include "io/image.h"

#include "io/atomic_file.h"
#include "io/error.h"

#include <ostream>
#include <png.h>

namespace tilegrid::io {

void Image::set(int x, int y, std::array<std::uint8_t, 3> colour)
{
    const std::size_t at = 3 * (static_cast<std::size_t>(y) * width + x);
    for (std::size_t c = 0; c < 3; ++c) rgb[at + c] = colour[c];
}

void writePng(std::string const& path, Image const& image)
{
    if (image.width < 1 || image.height < 1 || image.rgb.size() != std::size_t(3) * image.width * image.height)
        throw InputError("cannot write '" + path + "': the picture is empty or not of the size that it says");
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    png.width = static_cast<png_uint_32>(image.width);
    png.height = static_cast<png_uint_32>(image.height);
    png.format = PNG_FORMAT_RGB;
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(png);
    std::string bytes(size, '\0');
    if (!png_image_write_to_memory(&png, bytes.data(), &size, 0, image.rgb.data(), 0, nullptr))
        throw InputError("cannot write '" + path + "': " + png.message);
    writeAtomically(path, [&](std::ostream& out) { out.write(bytes.data(), static_cast<std::streamsize>(size)); });
}

}  // namespace tilegrid::io
