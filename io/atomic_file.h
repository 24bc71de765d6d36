#pragma once
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <string>

namespace tilegrid::io {

/// A file under a temporary name beside its place, which it takes only when it is complete: until then, and after any
/// failure, the old file stays. Where the place is no regular file (a pipe, a device), it is written to as it is. A
/// link keeps its name and its target is replaced.
class AtomicFile {
public:
    explicit AtomicFile(std::string const& path);
    AtomicFile(AtomicFile const&) = delete;
    AtomicFile& operator=(AtomicFile const&) = delete;
    /// Removes what was not committed.
    ~AtomicFile();

    /// Where to write.
    std::string const& workingPath() const { return working_; }
    /// Gives the file its name. \throws InputError if that fails
    void commit();

private:
    std::string asked_, target_, working_;
    bool direct_ = false, done_ = false;
};

/// Writes what `write` puts into the stream. \throws InputError if the file cannot be opened or takes not all of it
void writeAtomically(std::string const& path, std::function<void(std::ostream&)> const& write);

}  // namespace tilegrid::io
