#include "TilegridOps/nodes/frame.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/substrate/channel_services.h"
#include "TilegridOps/substrate/memory_budget.h"
#include "TilegridOps/substrate/topology.h"

#include <cstdlib>
#include <iostream>
#include <stdexcept>

namespace tilegrid::nodes {

namespace {

using Corvid::String;

std::unique_ptr<CoreGL::Logger::Timer> startTimer(NodeSpec const& row, Corvid::RuntimeServices const& services)
{
    return row.timer.empty() ? nullptr : CoreGL::Logger::timer(String(row.timer), &services);
}

[[maybe_unused]] void complain(std::string_view node, std::string const& what)
{
    std::cerr << "After node " << node << ": " << what << std::endl;
}

template <class Tr> [[maybe_unused]] bool isSound(OST::Object const& volume, std::string_view node)
{
    using namespace OST::TileTree3D;
    const auto tree = volume.component<Container<Tr>>(Ostara::Geometry::sVoxelTileTree);
    if (!tree) return true;
    const auto wrong = checkTree(*tree);
    for (std::string const& line : wrong) complain(node, line);
    bool sound = wrong.empty();
    for (String const& name : volume.componentRange()) {
        const auto channel = volume.component<VoxelChannelCore>(name);
        if (!channel) continue;
        for (int depth = std::max(channel->minDepth(), 0); depth <= channel->depth(); ++depth)
            if (channel->tileCount(depth) != tree->tileCount(depth)) {
                complain(node, "channel '" + name.str() + "' has another number of tiles than the tree at depth " + std::to_string(depth));
                sound = false;
            }
    }
    return sound;
}

}  // namespace

void checkVolume([[maybe_unused]] OST::Object const& volume, [[maybe_unused]] std::string_view node)
{
#ifdef TILEGRID_TREE_CHECKS
    const bool binary = isSound<OST::TileTree3D::BinaryTraits>(volume, node);
    const bool quinary = isSound<OST::TileTree3D::QuinaryTraits>(volume, node);
    if (!binary || !quinary) std::abort();
#endif
}

void guarded(NodeSpec const& row, Corvid::RuntimeServices const& services, FunctionRef<void()> work, FunctionRef<void()> cancelled)
{
    const auto limited = [&] {
        const MemoryLimit limit(services.memoryLimit());
        try {
            work();
        } catch (MemoryExceeded const& error) {
            services.logError(memoryMessage(error));
            cancelled();
        }
    };
    try {
        if (services.job() && services.job() != Job::current())
            parallel::runJob(services.job(), 0, limited);
        else
            limited();
    } catch (std::exception const& error) {
        if (!(String(error.what()) == OST::exceptionMessage)) throw;
        parallel::cancelCurrentGroup();
        CoreGL::terminateMessage(String(row.name));
        cancelled();
    }
}

bool checkType(NodeSpec const& row, Ostara::Object const& object, CoreGL::CorvidLogger const& logger)
{
    using namespace Ostara::Geometry;
    bool fits = true;
    if (row.prototype == Prototype::kVolume) fits = Ostara::Object::isA(object, *getVolumePrototype());
    if (row.prototype == Prototype::kLevelSet) fits = Ostara::Object::isA(object, *getLevelSetPrototype());
    if (!fits) logger.error(row.typeError);
    return fits;
}

void modifyVolume(NodeSpec const& row, Corvid::Ptr<Ostara::Object> input, Corvid::Ptr<Ostara::Object>& output,
                  Corvid::RuntimeServices const& services, FunctionRef<bool(CoreGL::CorvidLogger const&)> handsThrough,
                  FunctionRef<void(std::ostream&)> parameters, FunctionRef<void(OST::Object&, CoreGL::CorvidLogger const&)> run,
                  FunctionRef<void(CoreGL::CorvidLogger const&)> conclude)
{
    if (row.enablesPool) OST::TileTree3D::ChannelPool::enable();
    const int verbose = CoreGL::Logger::verboseLevel();
    auto timer = row.timesLate ? nullptr : startTimer(row, services);
    const auto work = [&] {
        if (Corvid::isJobCancelled()) {
            output = Ostara::createObject();
            return;
        }
        if (!timer) timer = startTimer(row, services);
        output = Corvid::toMutable(input);
        const CoreGL::CorvidLogger logger(services);
        // A null input is no volume; there is nothing to hand through but the null itself.
        if (!output) return logger.error(row.typeError);
        if (!checkType(row, *output, logger) || handsThrough(logger)) return;
        if (verbose > 0) {
            std::cout << row.name << ".begin" << std::endl;
            parameters(std::cout);
        }
        auto native = Ostara::Geometry::move_object_to_ost_volume(*Corvid::toMutable(output));
        if (native) {
            run(*native, logger);
            checkVolume(*native, row.name);
            output = Ostara::Geometry::move_ost_volume_to_object(*native);
        }
        conclude(logger);
        if (verbose > 0) std::cout << row.name << ".end" << std::endl;
    };
    guarded(row, services, work, [&] { output = Ostara::createObject(); });
}

void queryVolume(NodeSpec const& row, Ostara::Object const& volume, Corvid::RuntimeServices const& services,
                 FunctionRef<void(CoreGL::CorvidLogger const&)> read, FunctionRef<void()> restore)
{
    const auto timer = startTimer(row, services);
    const auto work = [&] {
        if (Corvid::isJobCancelled()) return;
        const CoreGL::CorvidLogger logger(services);
        if (checkType(row, volume, logger)) read(logger);
    };
    guarded(row, services, work, restore);
}

}  // namespace tilegrid::nodes
