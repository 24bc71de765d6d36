#pragma once
#include "cli/options.h"
#include "graph/run.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tilegrid::cli {

/// Shows how far a run has come, on standard error. The bar is wiped when the reporter ends or a message comes between.
class ProgressReporter {
public:
    explicit ProgressReporter(ProgressForm form) : form_(form) {}
    ProgressReporter(ProgressReporter const&) = delete;
    ProgressReporter& operator=(ProgressReporter const&) = delete;
    ~ProgressReporter() { clear(); }

    /// From now on everything is of this frame, the n-th (from 1) of so many.
    void beginFrame(std::int64_t frame, std::int64_t n, std::int64_t count);
    void show(graph::Progress const& progress);
    /// Makes room for a line of text.
    void clear();

private:
    ProgressForm form_;
    bool drawn_ = false;
    /// None of a sequence: count 0.
    std::int64_t frame_ = 0, frameNumber_ = 0, frameCount_ = 0;
};

/// Shows a message of a step on standard error, unless --quiet keeps it back.
/// \param before  stands in front of the text
void showMessage(ProgressReporter& reporter, Options const& options, Severity severity, std::string_view text, std::string const& before = "");

}  // namespace tilegrid::cli
