#include "graph/run.h"

#include "TilegridOps/nodes/query.h"
#include "TilegridOps/substrate/parallel.h"
#include "graph/error.h"
#include "graph/resources.h"
#include "io/error.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <new>
#include <ostream>
#include <utility>

namespace tilegrid::graph {

namespace {

class Runner {
public:
    Runner(Plan const& plan, RunOptions const& options) : plan_(plan), options_(options), results_(plan.steps.size()) {}

    void run()
    {
        for (std::size_t n = 0; n < plan_.steps.size(); ++n) {
            stopIfCancelled();
            report(n, "", 0);
            if (options_.stepEnded) resetPeakMemory();
            const auto start = std::chrono::steady_clock::now();
            failed_ = false;
            Result result = runLabelled(n);
            stopIfCancelled();
            if (!tooLarge_.empty())
                throw io::InputError(plan_.steps[n].label + ": " + tooLarge_ + " Choose larger voxels or a smaller reach, or give more memory (--max-memory).");
            // The message itself went to the sink, with the label.
            if (failed_) throw NodeError(plan_.steps[n].label + " reported an error; the steps after it were not run.");
            checkResult(plan_.steps[n], result);
            options_.results.flush();
            const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
            if (options_.stepEnded) options_.stepEnded({n, seconds.count(), bytesOf(result), peakMemory()});
            if (plan_.steps[n].resultUsed) results_[n] = std::move(result);
            report(n, "", 1);
        }
    }

private:
    void stopIfCancelled() const
    {
        if (options_.job && options_.job->cancelled()) throw Cancelled();
    }

    void report(std::size_t step, Corvid::StringView what, double done)
    {
        if (!options_.progress) return;
        std::lock_guard lock(mutex_);
        options_.progress({int(step) + 1, int(plan_.steps.size()), plan_.steps[step].node->name, std::string(std::string_view(what)), done});
    }

    Corvid::RuntimeServices servicesOf(std::size_t n)
    {
        const auto message = [this, n](Severity severity, Corvid::StringView text) {
            std::lock_guard lock(mutex_);
            if (severity == Severity::kError) failed_ = true;
            // Told by the error that ends the run, with what helps.
            if (severity == Severity::kError && std::string_view(text).starts_with(kNeedsMoreMemory)) {
                tooLarge_ = std::string_view(text);
                return;
            }
            if (options_.messages) options_.messages(severity, plan_.steps[n].label + ": " + std::string(std::string_view(text)));
        };
        return Corvid::RuntimeServices(options_.job, message, [this, n](Corvid::StringView what, double done) { report(n, what, done); },
                                       options_.maxBytes);
    }

    /// Runs one step; whatever goes wrong leaves with its label. A cancelled step may fail in any way.
    Result runLabelled(std::size_t n)
    {
        PlannedStep const& step = plan_.steps[n];
        try {
            return runStep(n);
        } catch (std::bad_alloc const&) {
            stopIfCancelled();
            throw io::InputError(step.label + ": there is not enough memory. Use larger voxels, or a machine with more memory.");
        } catch (io::InputError const& error) {
            stopIfCancelled();
            throw io::InputError(step.label + ": " + error.what());
        } catch (UsageError const& error) {
            throw UsageError(step.label + ": " + error.what());
        } catch (std::exception const& error) {
            stopIfCancelled();
            throw NodeError(step.label + " failed: " + error.what());
        }
    }

    Result runStep(std::size_t n)
    {
        PlannedStep const& step = plan_.steps[n];
        const Corvid::RuntimeServices services = servicesOf(n);
        StepContext context{step.arguments, {}, services, options_.results, options_.maxBytes};
        for (std::size_t i = 0; i < step.inputs.size(); ++i) {
            Result& source = results_[step.inputs[i].step];
            if (source.size() != 1 && !step.node->input(i).several) refuseSeveral(step, source);
            context.inputs.push_back(step.inputs[i].lastUse ? std::exchange(source, {}) : source);
        }
        return step.node->run(context);
    }

    static void refuseSeveral(PlannedStep const& step, Result const& source)
    {
        std::string names;
        for (io::NamedVolume const& volume : source) names += (names.empty() ? "'" : ", '") + volume.name + "'";
        throw io::InputError("'" + step.node->name + "' takes one volume, but the file read holds " + std::to_string(source.size()) + ": " + names +
                             ". Choose one where it is read, with volume=NAME.");
    }

    static void checkResult(PlannedStep const& step, Result const& result)
    {
        if (!step.node->hasResult) return;
        const auto isMissing = [](io::NamedVolume const& volume) { return !volume.volume; };
        if (result.empty() || std::any_of(result.begin(), result.end(), isMissing)) throw NodeError(step.label + " left no volume.");
    }

    Plan const& plan_;
    RunOptions const& options_;
    std::vector<Result> results_;
    std::mutex mutex_;
    bool failed_ = false;
    /// What a step said whose result would need too much memory.
    std::string tooLarge_;
};

}  // namespace

float StepContext::worldLength(std::string const& parameter)
{
    const Length length = arguments.length(parameter);
    if (length.unit == LengthUnit::kWorld) return float(length.value);
    float voxelSize = 0;
    Geometry::Volume::get_voxel_size(*volume().volume, voxelSize, services);
    return float(length.value * voxelSize);
}

void run(Plan const& plan, RunOptions const& options)
{
    checkFiles(plan);
    parallel::runJob(options.job, options.threads, [&] { Runner(plan, options).run(); });
}

}  // namespace tilegrid::graph
