#include "io/vdb_archive.h"

#include "io/atomic_file.h"
#include "io/error.h"

#include <openvdb/io/Archive.h>

#include <array>
#include <cstdio>
#include <istream>
#include <ostream>

namespace tilegrid::io {

namespace {

/// openvdb::io::File opens files itself and does not look whether they took what it wrote. This is the same archive on a
/// stream of ours.
class StreamArchive : public openvdb::io::Archive {
public:
    void writeTo(std::ostream& out, openvdb::GridCPtrVec const& grids) { write(out, grids, /*seekable*/ true); }
};

/// Place and length of the identifier: behind magic number, three versions and a flag.
constexpr std::size_t kIdentifierAt = 8 + 3 * 4 + 1, kIdentifierLength = 36;

/// Two hashes (after FNV-1a) of what a stream holds, with zeros in place of the identifier.
std::array<std::uint64_t, 2> contentHashes(std::iostream& file)
{
    std::array<std::uint64_t, 2> hashes = {0xcbf29ce484222325ull, 0x84222325cbf29ce4ull};
    file.seekg(0);
    std::streambuf& bytes = *file.rdbuf();
    for (std::size_t at = 0;; ++at) {
        const auto next = bytes.sbumpc();
        if (next == std::streambuf::traits_type::eof()) return hashes;
        const bool replaced = at >= kIdentifierAt && at < kIdentifierAt + kIdentifierLength;
        for (std::uint64_t& h : hashes)
            h = (h ^ (replaced ? std::uint64_t('0') : std::uint64_t(next))) * 0x100000001b3ull, h ^= h >> 29;
    }
}

/// Every writing draws a random identifier for the file. In its place goes one made from the content, so that equal
/// volumes give equal files.
void setIdentifierFromContent(std::iostream& file)
{
    char text[kIdentifierLength + 1];
    file.seekg(kIdentifierAt);
    if (!file.read(text, kIdentifierLength)) return;
    for (const std::size_t dash : {8, 13, 18, 23})
        if (text[dash] != '-') return;
    const auto hash = contentHashes(file);
    std::snprintf(text, sizeof text, "%08x-%04x-%04x-%04x-%012llx", unsigned(hash[0] >> 32),
                  unsigned(hash[0] >> 16 & 0xffff), unsigned(hash[0] & 0xffff), unsigned(hash[1] >> 48),
                  static_cast<unsigned long long>(hash[1] & 0xffffffffffffull));
    file.seekp(kIdentifierAt);
    file.write(text, kIdentifierLength);
}

}  // namespace

void writeGrids(std::string const& path, openvdb::GridCPtrVec const& grids)
{
    try {
        writeAtomically(path, [&grids](std::iostream& file) {
            StreamArchive().writeTo(file, grids);
            setIdentifierFromContent(file);
        });
    } catch (openvdb::Exception const& problem) {
        throw InputError("cannot write '" + path + "': " + problem.what());
    }
}

}  // namespace tilegrid::io
