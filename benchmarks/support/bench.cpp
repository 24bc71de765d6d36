#include "benchmarks/support/bench.h"

#include "TilegridOps/substrate/parallel.h"

#include <cstdio>
#include <vector>

namespace bench {

void add(std::string const& name, std::string const& side, int threads, std::int64_t items, std::function<std::uint64_t()> body)
{
    const std::string full = name + "/threads:" + std::to_string(threads) + "/" + side;
    benchmark::RegisterBenchmark(full.c_str(), [body, items, threads](benchmark::State& state) {
        std::uint64_t checksum = 0;
        // The work of both sides runs inside one arena of that many threads.
        tilegrid::parallel::runJob(nullptr, threads, [&] {
            checksum = body();  // warm: first touch and lazily built structures do not count
            for (auto _ : state) benchmark::DoNotOptimize(checksum = body());
        });
        state.counters["ns_per_item"] = benchmark::Counter(double(items) * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
        state.counters["checksum"] = double(checksum % 1000003);
        state.SetItemsProcessed(state.iterations() * items);
    })->UseRealTime()->Unit(benchmark::kMillisecond);
}

void figure(std::string const& name, std::string const& side, double value, std::string const& unit)
{
    benchmark::RegisterBenchmark((name + "/" + side).c_str(), [value, unit](benchmark::State& state) {
        for (auto _ : state) benchmark::DoNotOptimize(value);
        state.counters[unit] = value;
    })->Iterations(1);
}

int runAll(int argc, char** argv, std::string const& name)
{
    // Defaults first: an option given on the command line comes later and wins.
    std::vector<std::string> options = {argv[0], "--benchmark_repetitions=5", "--benchmark_enable_random_interleaving=true",
                                        "--benchmark_min_time=0.1", "--benchmark_out_format=json", "--benchmark_out=" + name + ".json"};
    options.insert(options.end(), argv + 1, argv + argc);
    std::vector<char*> arguments;
    for (std::string& option : options) arguments.push_back(option.data());
    int count = int(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace bench
