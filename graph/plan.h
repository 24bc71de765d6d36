#pragma once
#include "graph/graph.h"
#include "graph/node.h"

namespace tilegrid::graph {

struct PlannedStep {
    NodeInfo const* node = nullptr;
    Arguments arguments;
    /// For each input the step whose result it reads, and whether no later one reads it.
    struct Source {
        std::size_t step = 0;
        bool lastUse = false;
    };
    std::vector<Source> inputs;
    /// Whether a later step reads what this one leaves.
    bool resultUsed = false;
    /// "step 2 (slice)".
    std::string label;
};

/// A graph in which everything that can be checked without touching a file has been found right.
struct Plan {
    std::vector<PlannedStep> steps;
    /// Whether a step reads standard input, and whether one writes a file to standard output: results go elsewhere then.
    bool readsInput = false, writesOutput = false;
};

/// Checks a graph: nodes, inputs, results, parameters, values. \throws UsageError with every problem
Plan makePlan(Graph const& graph);

/// Checks that input files are there or are written by an earlier step, and that outputs can be created where they are wanted.
/// Creates nothing. \throws io::InputError with every problem
void checkFiles(Plan const& plan);

}  // namespace tilegrid::graph
