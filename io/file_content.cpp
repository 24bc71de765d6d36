#include "io/file_content.h"

#include "TilegridOps/substrate/parallel.h"
#include "io/error.h"
#include "io/standard_stream.h"
#include "io/text.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tilegrid::io {

namespace {

constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

/// An open file, closed at the end. Standard input stays open.
class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    ~Descriptor()
    {
        if (number_ > STDIN_FILENO) ::close(number_);
    }
    int number() const { return number_; }

private:
    int number_;
};

std::string reasonOf(int error) { return std::generic_category().message(error); }

/// Appends what comes until the end or until `content` has `most` bytes. \return 0, or the failure as a value of errno
int readUpTo(int descriptor, std::string& content, std::uint64_t most)
{
    constexpr std::uint64_t kPart = std::uint64_t(1) << 18;
    while (content.size() < most) {
        parallel::endStage();
        const std::size_t had = content.size();
        content.resize(had + std::size_t(std::min(kPart, most - had)));
        const ssize_t count = ::read(descriptor, content.data() + had, content.size() - had);
        content.resize(had + std::size_t(std::max<ssize_t>(count, 0)));
        if (count < 0 && errno != EINTR) return errno;
        if (count == 0) break;
    }
    return 0;
}

/// What was taken from standard input and not yet used.
std::string& inputAhead()
{
    static std::string ahead;
    return ahead;
}

/// Standard input from its begin, `most` bytes of it at the most.
std::string standardInput(std::uint64_t most)
{
    std::string content = std::exchange(inputAhead(), {});
    if (const int error = readUpTo(STDIN_FILENO, content, most))
        throw InputError("cannot read standard input: " + reasonOf(error));
    return content;
}

std::string tooLarge(std::uint64_t limit) { return "it has more than the limit of " + byteText(double(limit)); }

}  // namespace

std::string fileContent(std::string const& path, std::string const& kind, std::uint64_t maxBytes, Emptiness emptiness)
{
    const std::string what = isStandardStream(path) ? "from standard input" : "'" + path + "'";
    const auto fail = [&](std::string const& why) {
        throw InputError("cannot read the " + kind + " " + what + ": " + why);
    };
    const std::uint64_t limit = maxBytes > 0 ? maxBytes : kNoLimit - 1;
    if (isStandardStream(path)) {
        std::string content = standardInput(limit + 1);
        if (content.size() > limit) fail(tooLarge(limit));
        if (content.empty() && emptiness == Emptiness::kRefused) fail("nothing came");
        return content;
    }
    namespace fs = std::filesystem;
    std::error_code error;
    if (!fs::exists(path, error)) fail("there is no such file");
    if (!fs::is_regular_file(path, error)) fail("it is no regular file");
    const std::uint64_t size = fs::file_size(path, error);
    if (error) fail(error.message());
    if (size == 0 && emptiness == Emptiness::kRefused) fail("the file is empty");
    if (size > limit)
        fail("the file has " + byteText(double(size)) + ", and the limit is " + byteText(double(maxBytes)));
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.number() < 0) fail(reasonOf(errno));
    std::string content;
    content.reserve(size);
    if (const int failure = readUpTo(file.number(), content, size)) fail(reasonOf(failure));
    if (content.size() < size) fail("it cannot be read to its end");
    return content;
}

std::string fileHead(std::string const& path, std::string const& kind, std::size_t count)
{
    std::string head;
    if (isStandardStream(path)) {
        head = standardInput(count);
        inputAhead() = head;
        return head;
    }
    const auto fail = [&](std::string const& why) {
        throw InputError("cannot read the " + kind + " '" + path + "': " + why);
    };
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) fail("it is no regular file");
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.number() < 0) fail(reasonOf(errno));
    if (const int failure = readUpTo(file.number(), head, count)) fail(reasonOf(failure));
    return head;
}

std::string textContent(std::string const& path, std::uint64_t maxBytes)
{
    const bool isInput = path == "-";
    const auto fail = [&](std::string const& why) {
        throw InputError((isInput ? "standard input" : path) + ": " + why);
    };
    struct stat status {};
    if (!isInput && ::stat(path.c_str(), &status) != 0)
        fail("the file cannot be read: " + reasonOf(errno) + ". Check the name and the folder.");
    if (S_ISDIR(status.st_mode)) fail("it is a folder. Name a file.");
    if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode)) fail("it is a device. Name a file.");
    const Descriptor file(isInput ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.number() < 0) fail("the file cannot be read: " + reasonOf(errno) + ".");
    std::string content;
    if (const int failure = readUpTo(file.number(), content, maxBytes + 1))
        fail("it cannot be read: " + reasonOf(failure) + ".");
    if (content.size() > maxBytes) fail(tooLarge(maxBytes) + ".");
    return content;
}

}  // namespace tilegrid::io
