#pragma once
#include "graph/chain.h"
#include "graph/plan.h"
#include "graph/run.h"

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace tilegrid::test {

/// The plan of a chain, whose words are never taken for files that are there.
inline graph::Plan planOf(std::vector<std::string> const& words)
{
    return graph::makePlan(graph::parseChain(words, [](std::string const&) { return false; }));
}

/// Runs a plan and keeps what it said.
struct Trial {
    std::ostringstream results;
    std::vector<std::string> messages;
    std::vector<std::string> progress;

    void operator()(graph::Plan const& plan, Job* job = nullptr)
    {
        graph::run(
            plan,
            {.job = job,
             .threads = 2,
             .maxBytes = std::uint64_t(1) << 30,
             .results = results,
             .messages = [this](Severity, Corvid::StringView text) { messages.emplace_back(std::string_view(text)); },
             .progress =
                 [this](graph::Progress const& p) {
                     progress.push_back(p.node + " " + std::to_string(p.step) + " " + graph::shortest(p.done));
                 }});
    }
};

}  // namespace tilegrid::test
