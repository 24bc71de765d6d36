#pragma once
#include "graph/plan.h"

#include <cstdint>
#include <functional>
#include <iosfwd>

namespace tilegrid::graph {

/// How far a run has come. `step` counts from 1; `what` names the work inside the step and is empty at its start and end.
struct Progress {
    int step = 0, steps = 0;
    std::string node, what;
    /// Of the work named, 0 to 1.
    double done = 0;
};

/// What a step took that has ended.
struct StepReport {
    /// Place among the steps, from 0.
    std::size_t step = 0;
    double seconds = 0;
    /// Of what it left, and the most that the whole process had meanwhile (see resources.h).
    std::uint64_t resultBytes = 0, peakBytes = 0;
};

struct RunOptions {
    /// Where the run asks whether to stop. Null: nothing can stop it.
    Job* job = nullptr;
    /// 0: as many as the machine has.
    int threads = 0;
    /// Steps refuse what needs more.
    std::uint64_t maxBytes = 0;
    /// What the steps report.
    std::ostream& results;
    /// Both may be called from any thread of the run, but not from two at once. Messages come with the step's label.
    MessageSink messages;
    std::function<void(Progress const&)> progress;
    /// Called on the calling thread after each step that went well.
    std::function<void(StepReport const&)> stepEnded = {};
};

/// Runs the steps in their order, after `checkFiles`, and stops at the first that fails. What steps wrote before stays.
/// \throws Cancelled, io::InputError, UsageError, NodeError: with the label of the step
void run(Plan const& plan, RunOptions const& options);

}  // namespace tilegrid::graph
