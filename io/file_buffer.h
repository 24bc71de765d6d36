#pragma once
#include <sys/types.h>

#include <streambuf>
#include <vector>

namespace tilegrid::io {

/// A file of the system as a buffer of streams that keeps the system's reason of the first failure, which the standard file
/// streams lose. Reads, writes and seeks; reading and writing share one position. Asks at every full buffer whether the job
/// was cancelled, and throws that.
class FileBuffer final : public std::streambuf {
public:
    /// Takes over the descriptor, which is at its begin.
    explicit FileBuffer(int descriptor);
    FileBuffer(FileBuffer const&) = delete;
    FileBuffer& operator=(FileBuffer const&) = delete;
    ~FileBuffer() override;

    /// The first failure as a value of errno; 0: none.
    int error() const { return error_; }
    void setMode(mode_t mode);
    /// Writes what waits, waits for the disk where `sync` is set, and closes the file. \return whether there was no failure since the begin
    bool close(bool sync);

protected:
    int_type overflow(int_type c) override;
    int_type underflow() override;
    int sync() override;
    pos_type seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode which) override;
    pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

private:
    bool flush();
    bool failed();

    int descriptor_;
    int error_ = 0;
    std::vector<char> buffer_;
};

}  // namespace tilegrid::io
