#include "io/file_buffer.h"

#include "TilegridOps/substrate/parallel.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace tilegrid::io {

namespace {

constexpr std::size_t kBufferBytes = std::size_t(1) << 16;

}  // namespace

// The position of the descriptor is that of the begin of what waits to be written, or of the end of what was read.

FileBuffer::FileBuffer(int descriptor) : descriptor_(descriptor), buffer_(kBufferBytes) {}

FileBuffer::~FileBuffer()
{
    if (descriptor_ >= 0) ::close(descriptor_);
}

void FileBuffer::setMode(mode_t mode)
{
    // Without it the file has the mode of a new one, as where the old one belongs to somebody else.
    (void)!::fchmod(descriptor_, mode);
}

bool FileBuffer::failed()
{
    if (error_ == 0) error_ = errno;
    return false;
}

bool FileBuffer::flush()
{
    if (error_ != 0) return false;
    for (char const* from = pbase(); from != pptr();) {
        const ssize_t written = ::write(descriptor_, from, std::size_t(pptr() - from));
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return failed();
        from += written;
    }
    setp(nullptr, nullptr);
    return true;
}

bool FileBuffer::close(bool wait)
{
    if (descriptor_ < 0) return error_ == 0;
    flush();
    if (error_ == 0 && wait && ::fsync(descriptor_) != 0) failed();
    if (::close(std::exchange(descriptor_, -1)) != 0) failed();
    return error_ == 0;
}

FileBuffer::int_type FileBuffer::overflow(int_type c)
{
    parallel::endStage();
    if (gptr() != egptr() && ::lseek(descriptor_, gptr() - egptr(), SEEK_CUR) < 0) return failed(), traits_type::eof();
    setg(nullptr, nullptr, nullptr);
    if (!flush()) return traits_type::eof();
    setp(buffer_.data(), buffer_.data() + buffer_.size());
    return traits_type::eq_int_type(c, traits_type::eof()) ? traits_type::not_eof(c)
                                                           : sputc(traits_type::to_char_type(c));
}

FileBuffer::int_type FileBuffer::underflow()
{
    parallel::endStage();
    if (!flush()) return traits_type::eof();
    ssize_t count = -1;
    do count = ::read(descriptor_, buffer_.data(), buffer_.size());
    while (count < 0 && errno == EINTR);
    if (count < 0) failed();
    if (count <= 0) return traits_type::eof();
    setg(buffer_.data(), buffer_.data(), buffer_.data() + count);
    return traits_type::to_int_type(*gptr());
}

int FileBuffer::sync() { return flush() ? 0 : -1; }

FileBuffer::pos_type FileBuffer::seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode)
{
    const bool stays = offset == 0 && from == std::ios_base::cur;
    if (stays) {
        // The question for the position is frequent, and no reason to write.
        const off_t at = ::lseek(descriptor_, 0, SEEK_CUR);
        return at < 0 ? pos_type(off_type(-1)) : pos_type(at + (pptr() - pbase()) - (egptr() - gptr()));
    }
    if (!flush()) return pos_type(off_type(-1));
    if (from == std::ios_base::cur) offset -= egptr() - gptr();
    setg(nullptr, nullptr, nullptr);
    const off_t at = ::lseek(descriptor_, offset,
                             from == std::ios_base::beg       ? SEEK_SET
                                 : from == std::ios_base::cur ? SEEK_CUR
                                                              : SEEK_END);
    if (at < 0) failed();
    return pos_type(off_type(at));
}

FileBuffer::pos_type FileBuffer::seekpos(pos_type position, std::ios_base::openmode which)
{
    return seekoff(off_type(position), std::ios_base::beg, which);
}

}  // namespace tilegrid::io
