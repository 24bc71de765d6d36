#pragma once
#include "TilegridOps/host/logger.h"
#include "TilegridOps/host/object.h"
#include "TilegridOps/nodes/node_table.h"
#include "TilegridOps/substrate/parallel.h"

#include <cmath>
#include <ostream>

/// What every node does around its own work, in one place: timer, cancellation, type check, ownership of the volume, and
/// the handler.
namespace tilegrid::nodes {

using parallel::FunctionRef;

/// Parameters that must not be zero: anything within single-precision epsilon of it counts as zero, and so does a NaN.
inline constexpr float kZeroTolerance = 1.1920929e-7f;
inline bool countsAsZero(float x)
{
    return !(std::fabs(x) > kZeroTolerance);
}

/// Runs `work` under the job and the memory limit of the services. A cancellation that surfaces as an exception ends here: the
/// task group and the host are told, and `cancelled` restores the outputs. So does a result that would need too much memory:
/// that is an error for the user, and the outputs are those of a cancellation. Every other exception passes through.
void guarded(NodeSpec const& row, Corvid::RuntimeServices const& services, FunctionRef<void()> work, FunctionRef<void()> cancelled);

/// Whether the object is what the node asks for; one error message if not.
bool checkType(NodeSpec const& row, Ostara::Object const& object, CoreGL::CorvidLogger const& logger);

/// A node that changes a volume. The output is the input up to the moment the native volume is taken out.
/// \param handsThrough  true leaves output = input (after the type check; it may warn)
/// \param parameters  writes one line per parameter, for verbose levels above 0
/// \param run  the node's own work on the native volume; not called if there is none
/// \param conclude  called when the volume is back in the output, whether `run` was called or not
void modifyVolume(NodeSpec const& row, Corvid::Ptr<Ostara::Object> input, Corvid::Ptr<Ostara::Object>& output,
                  Corvid::RuntimeServices const& services, FunctionRef<bool(CoreGL::CorvidLogger const&)> handsThrough,
                  FunctionRef<void(std::ostream&)> parameters, FunctionRef<void(OST::Object&, CoreGL::CorvidLogger const&)> run,
                  FunctionRef<void(CoreGL::CorvidLogger const&)> conclude = [](CoreGL::CorvidLogger const&) {});

/// A node that only reads; its defaults are written before. `read` is not called if the job is cancelled or the type is wrong.
/// `restore` writes the defaults again after a cancellation inside `read`.
void queryVolume(NodeSpec const& row, Ostara::Object const& volume, Corvid::RuntimeServices const& services,
                 FunctionRef<void(CoreGL::CorvidLogger const&)> read, FunctionRef<void()> restore);

/// In builds with tree checks, aborts with the list of violations if the volume's tree or the sizes of its channels are
/// wrong. Nothing otherwise.
void checkVolume(OST::Object const& volume, std::string_view node);

}  // namespace tilegrid::nodes
