#pragma once
#include "support/volumes.h"

#include <string>
#include <vector>

namespace tilegrid::test {

/// What a node does with its outputs when it is given the wrong type of object. A node whose volume is a reference leaves that
/// reference as it was, shared or not.
enum class OnWrongType { kHandsThrough, kLeavesOutput, kLeavesReference, kGivesEmpty };

/// A node that gives a volume. `run` takes the input by value: a node that modifies uses it up.
struct VolumeNode {
    std::string name;
    std::function<void(HostPtr input, HostPtr& output, Corvid::RuntimeServices const&)> run;
    std::string typeError;
    OnWrongType onWrongType;
    HostPtr wrongType;
    std::string timer;
    /// Of parts of the node's work on the sample volume.
    std::vector<std::string> stageTimers = {};
};

/// A node that gives values: `run` returns them as text, from outputs that held something else before.
struct QueryNode {
    std::string name;
    std::function<std::string(Host const&, Corvid::RuntimeServices const&)> run;
    std::string defaults;
    Messages::List onMissingNative;
};

/// A volume with one plain channel of every type that the nodes of the lists work on, and one entry that is not geometry.
template <class Tr> HostPtr sampleVolume();
extern template HostPtr sampleVolume<BinaryTraits>();
extern template HostPtr sampleVolume<QuinaryTraits>();

/// All nodes, ready to run on that volume.
std::vector<VolumeNode> volumeNodes();
std::vector<QueryNode> queryNodes();

}  // namespace tilegrid::test
