#pragma once
#include "TilegridOps/host/logger.h"

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace tilegrid::test {

/// What goes to a standard stream while it lives.
class CapturedStream {
public:
    explicit CapturedStream(std::ostream& stream = std::cout) : stream_(stream), previous_(stream.rdbuf(text_.rdbuf()))
    {}
    CapturedStream(CapturedStream const&) = delete;
    CapturedStream& operator=(CapturedStream const&) = delete;
    ~CapturedStream() { stream_.rdbuf(previous_); }
    std::string text() const { return text_.str(); }
    std::vector<std::string> lines() const
    {
        std::istringstream in(text());
        std::vector<std::string> all;
        for (std::string line; std::getline(in, line);) all.push_back(line);
        return all;
    }

private:
    std::ostringstream text_;
    std::ostream& stream_;
    std::streambuf* previous_;
};

/// Sets the verbose level, and puts the old one back.
class VerboseLevel {
public:
    explicit VerboseLevel(int level) : previous_(CoreGL::Logger::verboseLevel())
    {
        CoreGL::Logger::setVerboseLevel(level);
    }
    VerboseLevel(VerboseLevel const&) = delete;
    VerboseLevel& operator=(VerboseLevel const&) = delete;
    ~VerboseLevel() { CoreGL::Logger::setVerboseLevel(previous_); }

private:
    int previous_;
};

}  // namespace tilegrid::test
