#include "io/atomic_file.h"

#include "TilegridOps/substrate/parallel.h"
#include "io/error.h"
#include "io/file_buffer.h"
#include "io/standard_stream.h"

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tilegrid::io {

namespace fs = std::filesystem;

namespace {

/// Names of the temporary files that exist now. Whoever creates, renames or removes one holds the lock.
struct TemporaryFiles {
    std::timed_mutex mutex;
    std::set<std::string> names;
};

TemporaryFiles& temporaryFiles()
{
    static TemporaryFiles files;
    return files;
}

[[noreturn]] void fail(std::string const& path, int error)
{
    const std::string what = isStandardStream(path) ? "standard output" : "'" + path + "'";
    throw InputError("cannot write " + what + ": " + std::generic_category().message(error));
}

/// The file that a path leads to, behind links.
std::string targetOf(std::string const& path)
{
    std::error_code error;
    if (fs::is_symlink(path, error))
        if (const fs::path linked = fs::weakly_canonical(path, error); !error) return linked.string();
    return path;
}

/// Puts the entry of a file in its folder to the disk. The file has its name already, and some file systems cannot do this
/// for folders, so a failure changes nothing.
void syncFolderOf(std::string const& file)
{
    const fs::path folder = fs::path(file).parent_path();
    const int descriptor = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) return;
    ::fsync(descriptor);
    ::close(descriptor);
}

class AtomicFile {
public:
    explicit AtomicFile(std::string const& path) : asked_(path)
    {
        if (path.empty()) throw InputError("no name for the file to write");
        std::error_code error;
        if (fs::is_directory(path, error)) throw InputError("cannot write '" + path + "': it is a folder");
        target_ = targetOf(path);
        struct stat old {};
        const bool isThere = ::stat(target_.c_str(), &old) == 0;
        if (isStandardStream(asked_) || (isThere && !S_ISREG(old.st_mode))) {
            stream_.rdbuf(&memory_);
        } else {
            if (isThere && ::access(target_.c_str(), W_OK) != 0) fail(asked_, errno);
            createTemporary();
            if (isThere) file_->setMode(old.st_mode & 07777);
            stream_.rdbuf(file_.get());
        }
        stream_.exceptions(std::ios::badbit | std::ios::failbit);
    }
    AtomicFile(AtomicFile const&) = delete;
    AtomicFile& operator=(AtomicFile const&) = delete;
    ~AtomicFile()
    {
        if (temporary_.empty()) return;
        TemporaryFiles& files = temporaryFiles();
        const std::lock_guard lock(files.mutex);
        ::unlink(temporary_.c_str());
        files.names.erase(temporary_);
    }

    std::iostream& stream() { return stream_; }

    /// Puts all that was written to the disk and gives it its name.
    void commit()
    {
        // A cancelled run must not replace a file any more.
        parallel::endStage();
        if (file_ && file_->error() != 0) fail(asked_, file_->error());
        if (!stream_) fail(asked_, EIO);
        if (file_)
            takeName();
        else
            writeToDevice();
    }

private:
    /// A name beside the file that no other process and no other thread takes.
    static std::string temporaryName(std::string const& target)
    {
        // Names have at most 255 bytes; what is added here has fewer than 55.
        constexpr std::size_t kKept = 200;
        static unsigned count = 0;
        const fs::path path(target);
        const std::string name = path.filename().string().substr(0, kKept) + "." + std::to_string(::getpid()) + "-"
            + std::to_string(count++) + ".part";
        return (path.parent_path() / name).string();
    }
    void createTemporary()
    {
        TemporaryFiles& files = temporaryFiles();
        const std::lock_guard lock(files.mutex);
        int descriptor = -1;
        std::string name;
        // A file of that name is left from a process of the same number that was killed.
        do {
            name = temporaryName(target_);
            descriptor = ::open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        } while (descriptor < 0 && errno == EEXIST);
        if (descriptor < 0) fail(asked_, errno);
        file_ = std::make_unique<FileBuffer>(descriptor);
        files.names.insert(name);
        temporary_ = std::move(name);
    }
    void takeName()
    {
        if (!file_->close(/*wait*/ true)) fail(asked_, file_->error());
        {
            TemporaryFiles& files = temporaryFiles();
            const std::lock_guard lock(files.mutex);
            if (::rename(temporary_.c_str(), target_.c_str()) != 0) fail(asked_, errno);
            files.names.erase(temporary_);
            temporary_.clear();
        }
        syncFolderOf(target_);
    }
    void writeToDevice()
    {
        const int descriptor = isStandardStream(asked_) ? ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                                                        : ::open(target_.c_str(), O_WRONLY | O_CLOEXEC);
        if (descriptor < 0) fail(asked_, errno);
        FileBuffer device(descriptor);
        const std::string_view content = memory_.view();
        device.sputn(content.data(), static_cast<std::streamsize>(content.size()));
        if (!device.close(/*wait*/ false)) fail(asked_, device.error());
    }

    std::string asked_, target_;
    /// Empty where there is none, or none any more.
    std::string temporary_;
    /// The content on its way: in the temporary file, or in memory for what is no regular file.
    std::unique_ptr<FileBuffer> file_;
    std::stringbuf memory_{std::ios::in | std::ios::out | std::ios::binary};
    std::iostream stream_{nullptr};
};

}  // namespace

void writeAtomically(std::string const& path, std::function<void(std::iostream&)> const& write)
{
    AtomicFile file(path);
    try {
        write(file.stream());
    } catch (std::ios_base::failure const&) {
        // The commit knows the reason, unless another stream has failed.
        if (file.stream().good()) throw;
    }
    file.commit();
}

void abandonTemporaryFiles() noexcept
{
    TemporaryFiles& files = temporaryFiles();
    // It is held for as long as a call of the system takes; a disk that hangs does not hold up the end. It is never given back.
    (void)files.mutex.try_lock_for(std::chrono::milliseconds(200));
    for (std::string const& name : files.names) ::unlink(name.c_str());
}

}  // namespace tilegrid::io
