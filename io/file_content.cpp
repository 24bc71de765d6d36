#include "io/file_content.h"

#include "io/error.h"
#include "io/text.h"

#include <filesystem>
#include <fstream>

namespace tilegrid::io {

std::string fileContent(std::string const& path, std::string const& kind, std::uint64_t maxBytes)
{
    const auto fail = [&](std::string const& why) { throw InputError("cannot read the " + kind + " '" + path + "': " + why); };
    namespace fs = std::filesystem;
    std::error_code error;
    if (!fs::exists(path, error)) fail("there is no such file");
    if (!fs::is_regular_file(path, error)) fail("it is no regular file");
    const std::uint64_t size = fs::file_size(path, error);
    if (error) fail(error.message());
    if (size == 0) fail("the file is empty");
    if (maxBytes > 0 && size > maxBytes)
        fail("the file has " + byteText(double(size)) + ", and the limit is " + byteText(double(maxBytes)));
    std::ifstream in(path, std::ios::binary);
    std::string content(size, '\0');
    if (!in.read(content.data(), static_cast<std::streamsize>(size))) fail("it cannot be read to its end");
    return content;
}

}  // namespace tilegrid::io
