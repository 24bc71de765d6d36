#pragma once
#include "graph/plan.h"

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
};

/// Runs the steps in their order, after `checkFiles`, and stops at the first that fails. What steps wrote before stays.
/// \throws Cancelled, io::InputError, UsageError, NodeError: with the label of the step
void run(Plan const& plan, RunOptions const& options);

}  // namespace tilegrid::graph
