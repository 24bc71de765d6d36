#pragma once
#include "command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

/// A pipe with a name in a work folder.
class NamedPipe {
public:
    NamedPipe(WorkFolder const& folder, std::string const& name) : path_(folder.path(name))
    {
        if (mkfifo(path_.c_str(), 0600) != 0) ADD_FAILURE() << "no pipe for the test";
    }
    NamedPipe(NamedPipe const&) = delete;
    NamedPipe& operator=(NamedPipe const&) = delete;
    ~NamedPipe() { close(descriptor_); }
    /// Waits until somebody has opened the other end.
    void open(int mode) { descriptor_ = ::open(path_.c_str(), mode | O_CLOEXEC); }
    int descriptor() const { return descriptor_; }

private:
    std::string path_;
    int descriptor_ = -1;
};
