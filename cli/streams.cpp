#include "cli/streams.h"

#include "io/text.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>

namespace tilegrid::cli {

namespace {

constexpr std::size_t kHeldResults = 1 << 16;

/// \return 0, or `errno`
int writeAll(int descriptor, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(std::size_t(written));
        } else if (errno == EAGAIN) {
            // Somebody else made the pipe one that does not wait.
            pollfd room{descriptor, POLLOUT, 0};
            ::poll(&room, 1, /*milliseconds*/ -1);
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

}  // namespace

PrintableOutput::~PrintableOutput()
{
    pass(waiting_.size());
}

std::streambuf::int_type PrintableOutput::overflow(int_type character)
{
    if (traits_type::eq_int_type(character, traits_type::eof())) return traits_type::not_eof(character);
    const char c = traits_type::to_char_type(character);
    return add({&c, 1}) == 1 ? character : traits_type::eof();
}

std::streamsize PrintableOutput::xsputn(char const* text, std::streamsize size)
{
    return add({text, std::size_t(size)});
}

int PrintableOutput::sync()
{
    std::lock_guard lock(mutex_);
    pass(waiting_.size() - io::incompleteTail(waiting_));
    return error_ == 0 ? 0 : -1;
}

std::streamsize PrintableOutput::add(std::string_view text)
{
    std::lock_guard lock(mutex_);
    waiting_ += text;
    if (waiting_.size() > held_) pass(waiting_.size() - io::incompleteTail(waiting_));
    return error_ == 0 ? std::streamsize(text.size()) : 0;
}

void PrintableOutput::pass(std::size_t size)
{
    if (error_ == 0 && size > 0) error_ = writeAll(descriptor_, io::printable(std::string_view(waiting_).substr(0, size)));
    waiting_.erase(0, size);
}

Streams::Streams()
    : results(nullptr), standardOutput_(STDOUT_FILENO, kHeldResults), standardError_(STDERR_FILENO, /*held*/ 0),
      cout_(std::cout.rdbuf(&standardError_)), cerr_(std::cerr.rdbuf(&standardError_))
{
    results.rdbuf(&standardOutput_);
}

Streams::~Streams()
{
    std::cout.rdbuf(cout_);
    std::cerr.rdbuf(cerr_);
}

int Streams::lostResults()
{
    results.flush();
    return standardOutput_.error();
}

}  // namespace tilegrid::cli
