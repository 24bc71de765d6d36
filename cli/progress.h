#pragma once
#include "cli/options.h"
#include "graph/run.h"

#include <functional>

namespace tilegrid::cli {

/// Shows how far a run has come, on standard error. The bar is wiped when the reporter ends or a message comes between.
class ProgressReporter {
public:
    explicit ProgressReporter(ProgressForm form) : form_(form) {}
    ProgressReporter(ProgressReporter const&) = delete;
    ProgressReporter& operator=(ProgressReporter const&) = delete;
    ~ProgressReporter() { clear(); }

    void show(graph::Progress const& progress);
    /// Makes room for a line of text.
    void clear();

private:
    ProgressForm form_;
    bool drawn_ = false;
};

}  // namespace tilegrid::cli
