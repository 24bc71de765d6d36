#pragma once
#include "cli/options.h"
#include "graph/run.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tilegrid::cli {

/// What the steps took, over all runs of the same chain. Prints it on standard error when it ends, also after a failure.
class Timings {
public:
    explicit Timings(TimingsForm form) : form_(form) {}
    Timings(Timings const&) = delete;
    Timings& operator=(Timings const&) = delete;
    ~Timings();

    /// Receives the steps of one run; empty if nobody wants to see them. The plan must live as long.
    std::function<void(graph::StepReport const&)> sinkFor(graph::Plan const& plan);

private:
    struct Step {
        std::string node;
        int runs = 0;
        double seconds = 0;
        std::uint64_t resultBytes = 0, peakBytes = 0;
    };
    std::string table() const;
    std::string json() const;

    TimingsForm form_;
    std::vector<Step> steps_;
};

}  // namespace tilegrid::cli
