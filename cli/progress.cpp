#include "cli/progress.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <iostream>

namespace tilegrid::cli {

void ProgressReporter::beginFrame(std::int64_t frame, std::int64_t n, std::int64_t count)
{
    frame_ = frame;
    frameNumber_ = n;
    frameCount_ = count;
}

void ProgressReporter::show(graph::Progress const& progress)
{
    if (form_ == ProgressForm::kJson) {
        nlohmann::ordered_json line = {{"step", progress.step}, {"steps", progress.steps}, {"node", progress.node},
                                             {"what", progress.what}, {"done", progress.done}};
        if (frameCount_ > 0) line["frame"] = frame_;
        std::fprintf(stderr, "%s\n", line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
    }
    if (form_ == ProgressForm::kBar) {
        constexpr int kWidth = 24;
        const double whole = (progress.step - 1 + (progress.what.empty() ? progress.done : 0.0)) / progress.steps;
        const int filled = int(whole * kWidth);
        std::string bar(std::size_t(filled), '#');
        bar.resize(kWidth, '.');
        const std::string frame = frameCount_ > 0 ? "frame " + std::to_string(frame_) + " (" + std::to_string(frameNumber_) + "/" + std::to_string(frameCount_) + ") " : "";
        std::fprintf(stderr, "\r\033[K%s[%s] %d/%d %s", frame.c_str(), bar.c_str(), progress.step, progress.steps, progress.node.c_str());
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

void showMessage(ProgressReporter& reporter, Options const& options, Severity severity, std::string_view text, std::string const& before)
{
    if (options.quiet && severity != Severity::kError) return;
    reporter.clear();
    std::cerr << before << (severity == Severity::kError ? "error: " : severity == Severity::kWarning ? "warning: " : "") << text << std::endl;
}

}  // namespace tilegrid::cli
