#include "cli/progress.h"

#include <nlohmann/json.hpp>

#include <cstdio>

namespace tilegrid::cli {

void ProgressReporter::show(graph::Progress const& progress)
{
    if (form_ == ProgressForm::kJson) {
        const nlohmann::ordered_json line = {{"step", progress.step}, {"steps", progress.steps}, {"node", progress.node},
                                             {"what", progress.what}, {"done", progress.done}};
        std::fprintf(stderr, "%s\n", line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
    }
    if (form_ == ProgressForm::kBar) {
        constexpr int kWidth = 24;
        const double whole = (progress.step - 1 + (progress.what.empty() ? progress.done : 0.0)) / progress.steps;
        const int filled = int(whole * kWidth);
        std::string bar(std::size_t(filled), '#');
        bar.resize(kWidth, '.');
        std::fprintf(stderr, "\r\033[K[%s] %d/%d %s", bar.c_str(), progress.step, progress.steps, progress.node.c_str());
        std::fflush(stderr);
        drawn_ = true;
    }
}

void ProgressReporter::clear()
{
    if (!drawn_) return;
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
    drawn_ = false;
}

}  // namespace tilegrid::cli
