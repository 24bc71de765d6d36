#pragma once
#include <functional>
#include <istream>
#include <string>

namespace tilegrid::io {

/// Writes what `write` puts into the stream: the one way in which files of any format are written.
///
/// The content goes under a temporary name beside the file, and takes its place when it is complete and on the disk. Until
/// then, and after any failure, the old file stays. A link keeps its name and its target is replaced; the new file gets the
/// permissions of the old one. What is no regular file (a pipe, a device, standard output as in io/standard_stream.h) gets
/// the content as soon as it is complete.
///
/// The stream can seek and read back. Its first failure throws std::ios_base::failure, which `write` lets pass. Writing polls
/// for a cancellation of the job and throws it.
/// \throws InputError with the system's reason if the file cannot be created or not be written to its end
void writeAtomically(std::string const& path, std::function<void(std::iostream&)> const& write);

/// For a program that is about to end without unwinding: removes the temporary files of all threads. None can be begun and
/// none can take its place afterwards; a thread that tries to waits for the end of the process.
void abandonTemporaryFiles() noexcept;

}  // namespace tilegrid::io
