#pragma once
#include <stdexcept>
#include <string>

/// What can go wrong with a graph. A file or a volume that cannot be served is a `tilegrid::io::InputError`.
namespace tilegrid::graph {

/// The graph itself is wrong: nothing was run. The text says what, where and what to do, one problem a line.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A node reported an error or failed.
class NodeError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The job was cancelled.
class Cancelled : public std::runtime_error {
public:
    Cancelled() : std::runtime_error("cancelled") {}
};

}  // namespace tilegrid::graph
