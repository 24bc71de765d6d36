#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/runtime.h"
#include "TilegridOps/host/string.h"

#include <chrono>
#include <memory>

namespace CoreGL {

/// Verbosity and timers, one state for the process. The setters are for the program around the library, between calls.
class TILEGRID_API Logger {
public:
    /// Measures the time until it is destroyed. With runtime services it reports start and end as progress; at a verbose
    /// level above 1 it writes its name and the seconds to standard output.
    class TILEGRID_API Timer {
    public:
        Timer(Corvid::String const& name, Corvid::RuntimeServices const* services);
        Timer(Timer const&) = delete;
        Timer& operator=(Timer const&) = delete;
        ~Timer();
        double seconds() const;

    private:
        Corvid::String name_;
        Corvid::RuntimeServices const* services_;
        std::chrono::steady_clock::time_point start_;
    };

    static std::unique_ptr<Timer> timer(Corvid::String const& name, Corvid::RuntimeServices const* services);
    /// A running timer in a slot of its own, so that it can be restarted: `*slot = Logger::timer(...)`. The caller owns
    /// the slot.
    static std::unique_ptr<std::unique_ptr<Timer>> timerPtr(Corvid::String const& name,
                                                            Corvid::RuntimeServices const* services);

    /// 0: quiet; above 0 begin and end lines and summaries; above 1 stage details; above 2 memory and grading facts.
    static int verboseLevel();
    static void setVerboseLevel(int level);
    static int errorVerboseLevel();
    static void setErrorVerboseLevel(int level);
    /// Whether operators also run their own consistency checks, for tests of a host.
    static bool getEnableTestMode();
    static void setEnableTestMode(bool on);
};

/// Messages that the user of a node sees.
class TILEGRID_API CorvidLogger {
public:
    explicit CorvidLogger(Corvid::RuntimeServices const& services) : services_(services) {}
    void error(Corvid::StringView text) const { services_.message(tilegrid::Severity::kError, text); }
    void warn(Corvid::StringView text) const { services_.message(tilegrid::Severity::kWarning, text); }
    void info(Corvid::StringView text) const { services_.message(tilegrid::Severity::kInfo, text); }

private:
    Corvid::RuntimeServices const& services_;
};

/// Tells the host that the node `name` stopped because its job was cancelled.
TILEGRID_API void terminateMessage(Corvid::String const& name);

}  // namespace CoreGL

namespace tilegrid {

/// Receives the node names given to `CoreGL::terminateMessage`; none: an info line on standard output above verbose level 0.
/// One for the process; set it between calls.
TILEGRID_API void setTerminationSink(std::function<void(Corvid::StringView)> sink);

}  // namespace tilegrid
