#include "TilegridOps/host/logger.h"

#include <atomic>
#include <iostream>
#include <mutex>

namespace {

std::atomic<int> verbose{0};
std::atomic<int> errorVerbose{0};
std::atomic<bool> testMode{false};

std::mutex messageMutex;
std::mutex terminationMutex;
std::function<void(Corvid::StringView)> terminationSink;

std::string_view label(tilegrid::Severity severity)
{
    switch (severity) {
        case tilegrid::Severity::kError: return "error: ";
        case tilegrid::Severity::kWarning: return "warning: ";
        case tilegrid::Severity::kInfo: break;
    }
    return "";
}

}  // namespace

void Corvid::RuntimeServices::message(tilegrid::Severity severity, StringView text) const
{
    if (messages_) return messages_(severity, text);
    std::lock_guard lock(messageMutex);
    std::cerr << label(severity) << std::string_view(text) << std::endl;
}

void Corvid::RuntimeServices::progress(StringView what, double done) const
{
    if (progress_) progress_(what, done);
}

namespace CoreGL {

Logger::Timer::Timer(Corvid::String const& name, Corvid::RuntimeServices const* services)
    : name_(name), services_(services), start_(std::chrono::steady_clock::now())
{
    if (services_) services_->progress(name_, 0.0);
}

Logger::Timer::~Timer()
{
    if (services_) services_->progress(name_, 1.0);
    if (verboseLevel() > 1) std::cout << name_ << " : " << seconds() << " s" << std::endl;
}

double Logger::Timer::seconds() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

std::unique_ptr<Logger::Timer> Logger::timer(Corvid::String const& name, Corvid::RuntimeServices const* services)
{
    return std::make_unique<Timer>(name, services);
}

std::unique_ptr<std::unique_ptr<Logger::Timer>> Logger::timerPtr(Corvid::String const& name,
                                                                 Corvid::RuntimeServices const* services)
{
    return std::make_unique<std::unique_ptr<Timer>>(timer(name, services));
}

int Logger::verboseLevel() { return verbose.load(std::memory_order_relaxed); }
void Logger::setVerboseLevel(int level) { verbose.store(level, std::memory_order_relaxed); }
int Logger::errorVerboseLevel() { return errorVerbose.load(std::memory_order_relaxed); }
void Logger::setErrorVerboseLevel(int level) { errorVerbose.store(level, std::memory_order_relaxed); }
bool Logger::getEnableTestMode() { return testMode.load(std::memory_order_relaxed); }
void Logger::setEnableTestMode(bool on) { testMode.store(on, std::memory_order_relaxed); }

void terminateMessage(Corvid::String const& name)
{
    std::unique_lock lock(terminationMutex);
    const auto sink = terminationSink;
    lock.unlock();  // the sink may itself report or be replaced
    if (sink)
        sink(name);
    else if (Logger::verboseLevel() > 0)
        std::cout << name << " was cancelled." << std::endl;
}

}  // namespace CoreGL

void tilegrid::setTerminationSink(std::function<void(Corvid::StringView)> sink)
{
    std::lock_guard lock(terminationMutex);
    terminationSink = std::move(sink);
}
