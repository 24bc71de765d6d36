#pragma once
#include "TilegridOps/host/runtime.h"
#include "graph/value.h"
#include "io/vdb.h"

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

/// What a node of a graph is: one description from which help, schema, checks and both forms of a graph are made.
namespace tilegrid::graph {

/// What a step leaves: volumes with the names they have in their file. All nodes but `read` leave one.
using Result = std::vector<io::NamedVolume>;

struct InputInfo {
    std::string name;
    std::string help;
    /// Whether it takes a result of several volumes.
    bool several = false;
    /// Whether any number of results may be named for it, one at the least. Only the last input of a node.
    bool repeated = false;
};

/// What a running step works with.
struct StepContext {
    Arguments const& arguments;
    /// One for each input of the node, or more where the last is repeated. A result that no later step reads is held by nobody else, so that a node may change
    /// it in place.
    std::vector<Result> inputs;
    Corvid::RuntimeServices const& services;
    /// What the user asked to see. Diagnostics do not belong here.
    std::ostream& results;
    /// Refuse work that needs more.
    std::uint64_t maxBytes = 0;

    /// The volume of an input that takes one.
    io::NamedVolume& volume(std::size_t input = 0) { return inputs[input].front(); }
    /// A length in world units. Voxels are those of the first input.
    float worldLength(std::string const& parameter);
};

struct NodeInfo {
    std::string name;
    /// One line for people.
    std::string help;
    std::vector<InputInfo> inputs = {};
    std::vector<ParameterInfo> parameters = {};
    /// Whether later steps can use what it leaves.
    bool hasResult = true;
    /// In a chain, the node that stands in for this one where its only input is a file of that node and all parameters are that node's.
    std::string forFiles = "";
    /// \throws io::InputError for what cannot be served, UsageError for parameters that do not fit what the inputs turned out
    ///         to be. Errors of the node itself come as messages.
    Result (*run)(StepContext& step) = nullptr;
    /// Where help shows it. Empty: in the group of its family (registry.cpp).
    std::string group = "";

    ParameterInfo const* parameter(std::string_view parameterName) const
    {
        for (ParameterInfo const& candidate : parameters)
            if (candidate.name == parameterName) return &candidate;
        return nullptr;
    }
    /// The input that the n-th result named is for.
    InputInfo const& input(std::size_t n) const { return inputs[n < inputs.size() ? n : inputs.size() - 1]; }
    bool takesInputs(std::size_t count) const
    {
        return count == inputs.size() || (count > inputs.size() && !inputs.empty() && inputs.back().repeated);
    }
    std::vector<std::string> parameterNames() const
    {
        std::vector<std::string> names;
        for (ParameterInfo const& candidate : parameters) names.push_back(candidate.name);
        return names;
    }
};

/// Whether the parameter means something in a step that reads or writes `file`; null, where that is not known, stands for any.
bool applies(ParameterInfo const& parameter, std::string const* file);
/// The same where the parameter is given to several files, or to all steps.
bool appliesByTheWay(ParameterInfo const& parameter, std::string const* file);

}  // namespace tilegrid::graph
