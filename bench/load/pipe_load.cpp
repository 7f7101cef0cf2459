// Passes numbered events through programs that take them from an input pipe and write them to an output pipe, and looks
// at every byte that comes out.
//
//   pipe_load throughput|latency ROUNDS EVENTS DAEMON [ARGUMENT]... [-- PEER [ARGUMENT]...]
//
// The daemon's pipes are /var/run/halvek.pipe and one in /var/run/halvek, the peer's /var/run/peer.pipe and one in
// /var/run/peer, so a /run of one's own is needed (scripts/private-run). Both programs run all the time and take turns,
// so that what the machine does meanwhile hits both alike:
//
// throughput: a round passes EVENTS events through one program and then through the other, as fast as they come.
// latency: a round passes EVENTS single events through each, one every 10 ms, half a period apart.
//
// For each round and program it prints a line "daemon|peer NAME VALUE NAME VALUE". Status 1, and the reason on standard
// error, as soon as an event is lost, doubled, out of order, or comes out as other bytes than it should.

#include "bench/load/Channel.h"
#include "bench/load/Clock.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <vector>

using namespace kelto::halvek::bench;

namespace {

constexpr uint64_t warmUpEvents = 200;
constexpr int64_t latencyPeriodNs = nsPerSecond / 100;

struct Candidate {
    const char* name;
    std::unique_ptr<Channel> channel;
};

using Candidates = std::vector<Candidate>;

double Seconds(int64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / nsPerSecond;
}

void MeasureThroughput(const Candidate& candidate, uint64_t events) {
    const int64_t processorBegin = candidate.channel->ProcessorTime();
    const int64_t begin = Now();
    candidate.channel->Pump(events);
    const double seconds = Seconds(Now() - begin);
    const double processorSeconds = Seconds(candidate.channel->ProcessorTime() - processorBegin);
    std::printf("%s seconds %.9f processor-seconds %.9f\n", candidate.name, seconds, processorSeconds);
}

double Percentile(const std::vector<int64_t>& sorted, size_t percent) {
    return Seconds(sorted.at((sorted.size() - 1) * percent / 100));
}

void MeasureLatency(const Candidates& candidates, uint64_t events) {
    std::vector<std::vector<int64_t>> times(candidates.size());
    const int64_t pause = latencyPeriodNs / static_cast<int64_t>(candidates.size());
    int64_t next = Now();
    for (uint64_t event = 0; event < events; ++event) {
        for (size_t i = 0; i < candidates.size(); ++i) {
            next += pause;
            SleepUntil(next);
            times[i].push_back(candidates[i].channel->PassOne());
        }
    }
    for (size_t i = 0; i < candidates.size(); ++i) {
        std::sort(times[i].begin(), times[i].end());
        std::printf("%s p50 %.9f p99 %.9f\n", candidates[i].name, Percentile(times[i], 50), Percentile(times[i], 99));
    }
}

void Measure(const std::string& mode, uint64_t rounds, uint64_t events, Candidates candidates) {
    for (const Candidate& candidate : candidates) {
        candidate.channel->Pump(warmUpEvents);
    }
    for (uint64_t round = 0; round < rounds; ++round) {
        if (mode == "latency") {
            MeasureLatency(candidates, events);
        } else {
            for (const Candidate& candidate : candidates) {
                MeasureThroughput(candidate, events);
            }
        }
        // Whoever went first goes last in the next round.
        std::reverse(candidates.begin(), candidates.end());
    }
    for (const Candidate& candidate : candidates) {
        candidate.channel->Finish();
    }
}

Candidates StartCandidates(const std::vector<std::string>& commands) {
    const auto separator = std::find(commands.begin(), commands.end(), "--");
    Candidates candidates;
    candidates.push_back(
        {"daemon", std::make_unique<Channel>("/var/run/halvek", std::vector(commands.begin(), separator))});
    if (separator != commands.end()) {
        const std::vector peer(separator + 1, commands.end());
        candidates.push_back({"peer", std::make_unique<Channel>("/var/run/peer", peer)});
    }
    return candidates;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() < 4 || (arguments[0] != "throughput" && arguments[0] != "latency")) {
        std::fputs("usage: pipe_load throughput|latency ROUNDS EVENTS DAEMON [ARGUMENT]... [-- PEER [ARGUMENT]...]\n",
                   stderr);
        return 2;
    }
    try {
        // A program that ends early is found out by the events that do not come.
        std::signal(SIGPIPE, SIG_IGN);
        SeparateProcessors();
        Measure(arguments[0], std::stoull(arguments[1]), std::stoull(arguments[2]),
                StartCandidates({arguments.begin() + 3, arguments.end()}));
        return 0;
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "pipe_load: %s\n", exception.what());
        return 1;
    }
}
