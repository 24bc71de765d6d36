#pragma once
#include "TilegridOps/host/job.h"

#include <atomic>
#include <thread>

#include <signal.h>

namespace tilegrid::cli {

/// While it lives, SIGINT and SIGTERM cancel the job. A step that has not ended a moment later, because a library below or a
/// call of the system cannot be stopped, is ended with the whole process: status `kCancelled`, no temporary file left. A
/// second signal does that at once. Threads that start meanwhile leave the signals to the watch, so it must be made first.
class SignalWatch {
public:
    /// \throws std::system_error if there can be no thread
    explicit SignalWatch(Job& job);
    SignalWatch(SignalWatch const&) = delete;
    SignalWatch& operator=(SignalWatch const&) = delete;
    /// Signals do afterwards what they did before.
    ~SignalWatch();

private:
    void watch(Job& job);

    sigset_t signals_{}, before_{};
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

}  // namespace tilegrid::cli
