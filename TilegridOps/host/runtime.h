#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/job.h"
#include "TilegridOps/host/string.h"

#include <cstdint>
#include <functional>

namespace tilegrid {

enum class Severity { kInfo, kWarning, kError };

/// Receives the messages that a user sees. May be called from any thread that runs a node.
using MessageSink = std::function<void(Severity, Corvid::StringView)>;
/// Receives progress: the name of what runs and how much of it is done, 0 to 1. Called from destructors, so it must not throw.
using ProgressSink = std::function<void(Corvid::StringView, double)>;

/// What the error of a node begins with whose result would take more memory than its services allow; the estimate follows. The
/// output is an empty object then, and inputs that others share are as they were.
inline constexpr char const* kNeedsMoreMemory = "The result needs more memory than allowed.";

}  // namespace tilegrid

namespace Corvid {

/// What a node may ask of the runtime that called it. A value: copies speak to the same sinks and the same job, which the
/// caller keeps alive for the length of the call.
class TILEGRID_API RuntimeServices {
public:
    /// Messages go to standard error, progress nowhere, nothing can be cancelled.
    RuntimeServices() = default;
    /// \param memoryLimit  bytes that the tiles and values of a result may take; 0: three quarters of the machine's memory
    explicit RuntimeServices(tilegrid::Job* job, tilegrid::MessageSink messages = {}, tilegrid::ProgressSink progress = {},
                             std::uint64_t memoryLimit = 0)
        : job_(job), messages_(std::move(messages)), progress_(std::move(progress)), memoryLimit_(memoryLimit)
    {
    }

    tilegrid::Job* job() const { return job_; }
    void message(tilegrid::Severity severity, StringView text) const;
    void logError(StringView text) const { message(tilegrid::Severity::kError, text); }
    void progress(StringView what, double done) const;
    std::uint64_t memoryLimit() const { return memoryLimit_; }

private:
    tilegrid::Job* job_ = nullptr;
    tilegrid::MessageSink messages_;
    tilegrid::ProgressSink progress_;
    std::uint64_t memoryLimit_ = 0;
};

/// True once the job that the calling thread serves was cancelled. From any thread; a thread without a job gets false.
TILEGRID_API bool isJobCancelled();

}  // namespace Corvid
