#pragma once
#include <string>

namespace tilegrid::cli {

/// Exit statuses of the command.
inline constexpr int kDone = 0, kUsage = 1, kInput = 2, kNode = 3, kCancelled = 130;
/// What a shell shows for a program that the closed pipe ended: 128 and the number of the signal.
inline constexpr int kClosedPipe = 141;

/// How a failed command ends.
struct Failure {
    int status = kDone;
    /// For people, without the name of the program.
    std::string text;
};

/// What the exception being handled means for the command. Only inside a handler.
Failure currentFailure();

}  // namespace tilegrid::cli
