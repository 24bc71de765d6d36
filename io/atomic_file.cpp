#include "io/atomic_file.h"

#include "io/error.h"

#include <atomic>
#include <fstream>
#include <system_error>
#include <unistd.h>

namespace tilegrid::io {

namespace fs = std::filesystem;

AtomicFile::AtomicFile(std::string const& path) : asked_(path), target_(path)
{
    if (path.empty()) throw InputError("no name for the file to write");
    std::error_code error;
    if (fs::is_directory(path, error)) throw InputError("cannot write '" + path + "': it is a folder");
    if (fs::is_symlink(path, error))
        if (const fs::path linked = fs::weakly_canonical(path, error); !error) target_ = linked.string();
    direct_ = fs::exists(target_, error) && !fs::is_regular_file(target_, error);
    static std::atomic<unsigned> count{0};
    working_ = direct_ ? target_ : target_ + "." + std::to_string(::getpid()) + "-" + std::to_string(count++) + ".part";
}

AtomicFile::~AtomicFile()
{
    std::error_code ignored;
    if (!direct_ && !done_) fs::remove(working_, ignored);
}

void AtomicFile::commit()
{
    std::error_code error;
    if (!direct_) fs::rename(working_, target_, error);
    if (error) throw InputError("cannot write '" + asked_ + "': " + error.message());
    done_ = true;
}

void writeAtomically(std::string const& path, std::function<void(std::ostream&)> const& write)
{
    AtomicFile file(path);
    std::ofstream out(file.workingPath(), std::ios::binary | std::ios::trunc);
    if (!out) throw InputError("cannot write '" + path + "': no such folder, or no right to write there");
    write(out);
    out.close();
    if (!out) throw InputError("cannot write '" + path + "': the disk took not all of it");
    file.commit();
}

}  // namespace tilegrid::io
