#pragma once
#include "graph/plan.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// One graph for the frames of a sequence: in names of files, ## and longer runs of # stand for the number of the frame.
namespace tilegrid::graph {

/// Frames from the first one to the last one that a whole number of steps reaches.
struct FrameRange {
    std::int64_t first = 0, last = 0, step = 1;
    std::int64_t count() const { return (last - first) / step + 1; }
    std::int64_t frame(std::int64_t n) const { return first + n * step; }
};

/// "1-240", "1-240x2" for every second one, or "7". Frames are whole numbers from 0 to 999999999, at most a million of them.
/// \throws UsageError for any other text
FrameRange parseFrames(std::string const& text);

/// The text with the frame in place of each run of two or more #, with zeros in front up to the length of the run. A single #
/// stays.
std::string withFrame(std::string const& text, std::int64_t frame);

/// The graph with the frame in the names of its files, those that steps read and those that they write.
Graph graphOfFrame(Graph const& graph, std::int64_t frame);

/// What must hold for frames: some file has the frame in its name, and so has every file that is written, so that no frame writes
/// over another one. \throws UsageError with every problem
void checkFrameNames(Graph const& graph);
/// \throws UsageError if a name stands for frames, although none are asked for
void refuseFrameNames(Graph const& graph);

/// The files that the steps write, each with the place of its step.
std::vector<std::pair<std::size_t, std::string>> outputFiles(Plan const& plan);

}  // namespace tilegrid::graph
