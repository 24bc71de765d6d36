#pragma once
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>

#include <unistd.h>

/// Importers read files, so each input becomes one, in memory where the machine has such a folder.
class FuzzFile {
public:
    FuzzFile(std::uint8_t const* data, std::size_t size, std::string const& ending)
        : path_(std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/tilegrid_fuzz_" + std::to_string(getpid()) + ending)
    {
        std::ofstream(path_, std::ios::binary).write(reinterpret_cast<char const*>(data), std::streamsize(size));
    }
    FuzzFile(FuzzFile const&) = delete;
    FuzzFile& operator=(FuzzFile const&) = delete;
    ~FuzzFile() { unlink(path_.c_str()); }
    std::string const& path() const { return path_; }

private:
    std::string path_;
};

/// More than any input of the fuzzer can fill honestly, little enough that a lying count shows.
inline constexpr std::uint64_t kFuzzBytes = std::uint64_t(256) << 20;
