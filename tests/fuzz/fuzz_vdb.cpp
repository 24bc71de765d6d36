#include "fuzz_file.h"

#include "io/error.h"
#include "io/vdb.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    const FuzzFile file(data, size, ".vdb");
    const Corvid::RuntimeServices silent(nullptr, [](tilegrid::Severity, Corvid::StringView) {});
    try {
        tilegrid::io::VdbOptions options;
        options.maxBytes = kFuzzBytes;
        for (auto const& named : tilegrid::io::readVdb(file.path(), options, silent))
            if (!named.volume) std::abort();
    } catch (tilegrid::io::InputError const&) {
        // The documented answer to a bad file.
    }
    return 0;
}
