#pragma once
#include <cstddef>
#include <mutex>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

namespace tilegrid::cli {

/// Text on its way out of the process: what a terminal would take for a command is escaped (`io::printable`), since names and
/// texts of files are in it. From any thread.
class PrintableOutput : public std::streambuf {
public:
    /// \param held  bytes that may wait for a flush
    PrintableOutput(int descriptor, std::size_t held) : descriptor_(descriptor), held_(held) {}
    PrintableOutput(PrintableOutput const&) = delete;
    PrintableOutput& operator=(PrintableOutput const&) = delete;
    ~PrintableOutput() override;

    /// `errno` of the first write that failed, after which nothing is written any more; 0: none did.
    int error() const { return error_; }

protected:
    int_type overflow(int_type character) override;
    std::streamsize xsputn(char const* text, std::streamsize size) override;
    int sync() override;

private:
    std::streamsize add(std::string_view text);
    void pass(std::size_t size);

    int descriptor_;
    std::size_t held_;
    int error_ = 0;
    std::string waiting_;
    std::mutex mutex_;
};

/// The streams of the command while it runs: results have standard output for themselves. Everything else goes to standard error,
/// the diagnostics that the library writes to std::cout included.
class Streams {
public:
    Streams();
    Streams(Streams const&) = delete;
    Streams& operator=(Streams const&) = delete;
    ~Streams();

    std::ostream results;
    /// What became of the results once they are flushed: 0, or `errno`.
    int lostResults();

private:
    PrintableOutput standardOutput_, standardError_;
    std::streambuf *cout_, *cerr_;
};

}  // namespace tilegrid::cli
