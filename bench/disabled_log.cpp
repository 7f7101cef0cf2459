// What a log call below the level costs, beside an empty loop: KELTO_LOG=Warning disabled_log [GOOGLE BENCHMARK
// OPTION]... With --calls=N it makes N such calls instead and nothing else, for whoever counts system calls or
// instructions.

#include "kelto/core/Logger.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace {

using kelto::core::Logger;

constexpr std::string_view callsOption = "--calls=";

void EmptyLoop(benchmark::State& state) {
    for ([[maybe_unused]] auto step : state) {
        benchmark::ClobberMemory();
    }
}
BENCHMARK(EmptyLoop);

void DisabledDebug(benchmark::State& state) {
    const Logger& logger = Logger::GetLogger("halvek");
    for ([[maybe_unused]] auto step : state) {
        logger.Debug("ExternEventHandler: Firing event with eventType: %s", "MotionDetection");
        benchmark::ClobberMemory();
    }
}
BENCHMARK(DisabledDebug);

void MakeCalls(uint64_t count) {
    const Logger& logger = Logger::GetLogger("halvek");
    for (uint64_t i = 0; i < count; ++i) {
        logger.Debug("ExternEventHandler: Firing event with eventType: %s", "MotionDetection");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (Logger::GetLogger("halvek").IsEnabled(kelto::core::LogLevel::Debug)) {
        std::fputs("disabled_log: the level is not disabled, set KELTO_LOG=Warning\n", stderr);
        return 1;
    }
    if (argc == 2 && std::string_view(argv[1]).starts_with(callsOption)) {
        MakeCalls(std::stoull(argv[1] + callsOption.size()));
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
