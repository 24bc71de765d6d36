#include "graph/error.h"
#include "graph/json.h"
#include "graph/plan.h"
#include "io/error.h"

#include <cstdint>
#include <cstdlib>
#include <string>

/// A graph in JSON is read, written back and checked. What is read must survive being written.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    using namespace tilegrid;
    const std::string text(reinterpret_cast<char const*>(data), size);
    try {
        const graph::Graph read = graph::graphFromJson(text);
        const std::string written = graph::toJson(read);
        if (graph::toJson(graph::graphFromJson(written)) != written) std::abort();
        graph::makePlan(read);
    } catch (io::InputError const&) {
        // no JSON
    } catch (graph::UsageError const&) {
        // JSON, but no graph that could run
    }
    return 0;
}
