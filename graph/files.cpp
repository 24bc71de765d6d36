#include "graph/files.h"

#include "io/error.h"

#include <filesystem>

namespace tilegrid::graph {

void createParentFolders(std::string const& file)
{
    const std::filesystem::path folder = std::filesystem::path(file).parent_path();
    std::error_code error;
    if (folder.empty() || std::filesystem::is_directory(folder, error)) return;
    std::filesystem::create_directories(folder, error);
    if (error) throw io::InputError("the folder '" + folder.string() + "' cannot be created: " + error.message() + ". Choose another place.");
}

}  // namespace tilegrid::graph
