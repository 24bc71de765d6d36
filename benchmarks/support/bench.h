#pragma once
#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <string>

/// What the benchmark programs share. Every measurement exists twice, for us and for the peer, under names that differ in
/// their last part ("ours", "peer"); repetitions of all of them are interleaved, and the report compares medians.
namespace bench {

/// Registers `body`, which does one whole run on `threads` threads and returns a checksum. Times are per item.
void add(std::string const& name, std::string const& side, int threads, std::int64_t items, std::function<std::uint64_t()> body);

/// A figure that is no time (bytes, a limit in GB/s): kept in the JSON beside the times.
void figure(std::string const& name, std::string const& side, double value, std::string const& unit);

/// Runs everything registered, 5 interleaved repetitions each, and writes `NAME.json` into the working folder unless the
/// command line says otherwise.
int runAll(int argc, char** argv, std::string const& name);

}  // namespace bench
