#include "cli/signal_watch.h"

#include "cli/failure.h"
#include "io/atomic_file.h"

#include <unistd.h>

#include <cerrno>
#include <string>

namespace tilegrid::cli {

namespace {

/// What a job has to end by itself. With what the system then needs to take back the memory, a command ends within a second.
constexpr timespec kGrace{0, 500'000'000};

/// \return whether a signal came in time
bool signalWithin(sigset_t const& signals, timespec const& time)
{
    int signal = -1;
    do signal = sigtimedwait(&signals, nullptr, &time);
    while (signal < 0 && errno == EINTR);
    return signal > 0;
}

[[noreturn]] void endProcess(std::string const& reason)
{
    io::abandonTemporaryFiles();
    // A bar may stand on the line.
    const std::string text = (isatty(STDERR_FILENO) ? "\r\033[K" : "")
        + ("tilegrid: " + reason + " Files written by steps that had ended stay.\n");
    (void)!write(STDERR_FILENO, text.data(), text.size());
    _exit(kCancelled);
}

}  // namespace

SignalWatch::SignalWatch(Job& job)
{
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals_, &before_);
    thread_ = std::thread([this, &job] { watch(job); });
}

SignalWatch::~SignalWatch()
{
    ended_ = true;
    pthread_kill(thread_.native_handle(), SIGTERM);
    thread_.join();
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void SignalWatch::watch(Job& job)
{
    int signal = 0;
    sigwait(&signals_, &signal);
    if (ended_) return;
    job.cancel();
    const bool second = signalWithin(signals_, kGrace);
    if (ended_) return;
    endProcess(second ? "ended at the second signal."
                      : "cancelled; the step could not be stopped, and the process was ended.");
}

}  // namespace tilegrid::cli
