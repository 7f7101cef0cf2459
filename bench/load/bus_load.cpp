// Raises alarms on the system bus and sees when the program under load activates a relay for them.
//
//   bus_load latency ROUNDS ALARMS DAEMON [-- PEER]...
//   bus_load isolation EVENTS DAEMON
//   bus_load pace EVENTS DAEMON
//
// The alarms of the daemon are those of the object /com/kelto/AlarmV3, and it must activate relay 0 for each; the n-th
// peer has /com/kelto/AlarmV3/peern and relay n. The relay service of this program answers every call at once. DAEMON
// and PEER are program and arguments; all run all the time and take turns.
//
// latency: a round raises ALARMS alarms for each program, 100 a second and evenly spread, and takes the time from
// before the signal is sent until the call of Activate has come. For each round and program it prints a line "NUMBER
// p50 VALUE p99 VALUE" in seconds; the daemon's number is 0.
//
// isolation: posts EVENTS events to the daemon's pipe, one every 100 ms, while every relay call takes 3 s and an alarm
// comes every second; takes the times between the events as they come out. Before that the same without alarms. For
// both it prints a line "quiet|alarms median VALUE worst VALUE calls NUMBER" in seconds, where the number counts relay
// calls.
//
// pace: the same beside whatever else the daemon does for an alarm; whoever starts this makes that slow.

#include "bench/load/CameraService.h"
#include "bench/load/Channel.h"
#include "bench/load/Clock.h"
#include "bench/load/Program.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace kelto::halvek::bench;

namespace {

using Command = std::vector<std::string>;
using Times = std::vector<int64_t>;

constexpr const char* alarmPath = "/com/kelto/AlarmV3";
constexpr uint64_t warmUpAlarms = 100;
constexpr int64_t latencyPeriodNs = nsPerSecond / 100;
constexpr int64_t retryNs = 100 * nsPerMs;
constexpr int64_t eventPeriodNs = 100 * nsPerMs;
constexpr uint64_t eventsPerAlarm = 10;
constexpr int64_t slowAnswerNs = 3 * nsPerSecond;

double Seconds(int64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / nsPerSecond;
}

double Percentile(const Times& sorted, size_t percent) {
    return Seconds(sorted.at((sorted.size() - 1) * percent / 100));
}

/** A program that activates a relay when an alarm comes. */
class Candidate {
public:
    Candidate(CameraService& service, size_t relayNumber, const Command& command)
        : camera(service),
          relay(relayNumber),
          path(relay == 0 ? alarmPath : std::string(alarmPath) + "/peer" + std::to_string(relay)),
          program(command) {}

    size_t Number() const { return relay; }

    /** Nanoseconds from before the alarm until the relay is activated. */
    int64_t PassOne() {
        const int64_t begin = Now();
        const uint64_t wanted = camera.Activations(relay) + 1;
        camera.RaiseAlarm(path);
        if (!camera.ServeUntilActivated(relay, wanted, begin + patienceNs)) {
            throw std::runtime_error("relay " + std::to_string(relay) + " was not activated");
        }
        return camera.LastActivation() - begin;
    }

    /** Returns when it listens and answers one by one. */
    void WarmUp() {
        const int64_t deadline = Now() + patienceNs;
        do {
            if (program.HasEnded() || Now() > deadline) {
                throw std::runtime_error("program " + std::to_string(relay) + " does not answer an alarm");
            }
            camera.RaiseAlarm(path);
        } while (!camera.ServeUntilActivated(relay, 1, Now() + retryNs));
        camera.ServeUntil(Now() + retryNs);
        for (uint64_t alarm = 0; alarm < warmUpAlarms; ++alarm) {
            PassOne();
        }
    }

private:
    CameraService& camera;
    const size_t relay;
    const std::string path;
    Program program;
};

using Candidates = std::vector<std::unique_ptr<Candidate>>;

/** Splits at each "--". */
std::vector<Command> SplitCommands(const Command& words) {
    std::vector<Command> commands(1);
    for (const std::string& word : words) {
        if (word == "--") {
            commands.emplace_back();
        } else {
            commands.back().push_back(word);
        }
    }
    return commands;
}

void MeasureRound(CameraService& camera, const Candidates& candidates, uint64_t alarms) {
    std::vector<Times> times(candidates.size());
    const int64_t pause = latencyPeriodNs / static_cast<int64_t>(candidates.size());
    int64_t next = Now();
    for (uint64_t alarm = 0; alarm < alarms; ++alarm) {
        for (size_t i = 0; i < candidates.size(); ++i) {
            next += pause;
            camera.ServeUntil(next);
            times[i].push_back(candidates[i]->PassOne());
        }
    }
    for (size_t i = 0; i < candidates.size(); ++i) {
        std::sort(times[i].begin(), times[i].end());
        std::printf("%zu p50 %.9f p99 %.9f\n", candidates[i]->Number(), Percentile(times[i], 50),
                    Percentile(times[i], 99));
    }
}

void MeasureLatency(uint64_t rounds, uint64_t alarms, const Command& words) {
    CameraService camera;
    Candidates candidates;
    for (const Command& command : SplitCommands(words)) {
        candidates.push_back(std::make_unique<Candidate>(camera, candidates.size(), command));
    }
    for (const auto& candidate : candidates) {
        candidate->WarmUp();
    }
    for (uint64_t round = 0; round < rounds; ++round) {
        MeasureRound(camera, candidates, alarms);
        // Whoever went first goes later in the next round.
        std::rotate(candidates.begin(), candidates.begin() + 1, candidates.end());
    }
}

/** @param eventsAnAlarm an alarm comes with every so many events; never with 0 */
void MeasurePace(CameraService& camera, Channel& channel, const char* name, uint64_t events, uint64_t eventsAnAlarm) {
    Times gaps;
    const uint64_t callsBefore = camera.Calls();
    int64_t next = Now();
    int64_t last = next + channel.PassOne();
    for (uint64_t event = 0; event < events; ++event) {
        if (eventsAnAlarm != 0 && event % eventsAnAlarm == 0) {
            camera.RaiseAlarm(alarmPath);
        }
        next += eventPeriodNs;
        camera.ServeUntil(next);
        const int64_t begin = Now();
        const int64_t out = begin + channel.PassOne();
        gaps.push_back(out - last);
        last = out;
    }
    std::sort(gaps.begin(), gaps.end());
    std::printf("%s median %.9f worst %.9f calls %llu\n", name, Percentile(gaps, 50), Seconds(gaps.back()),
                static_cast<unsigned long long>(camera.Calls() - callsBefore));
}

void MeasureIsolation(uint64_t events, const Command& daemon) {
    CameraService camera;
    Channel channel("/var/run/halvek", daemon);
    MeasurePace(camera, channel, "quiet", events, 0);
    camera.SetAnswerDelay(slowAnswerNs);
    MeasurePace(camera, channel, "alarms", events, eventsPerAlarm);
    if (camera.UnansweredCalls() == 0) {
        throw std::runtime_error("no alarm reached the relay service");
    }
    // The call under way is to be answered, so that the daemon's stop need not wait for its end.
    camera.SetAnswerDelay(0);
    camera.ServeUntil(Now() + slowAnswerNs);
}

void MeasurePaces(uint64_t events, const Command& daemon) {
    CameraService camera;
    Channel channel("/var/run/halvek", daemon);
    MeasurePace(camera, channel, "quiet", events, 0);
    MeasurePace(camera, channel, "alarms", events, eventsPerAlarm);
}

int Run(const Command& arguments) {
    SeparateProcessors();
    const std::string mode = arguments.empty() ? "" : arguments[0];
    if (mode == "latency" && arguments.size() >= 4) {
        MeasureLatency(std::stoull(arguments[1]), std::stoull(arguments[2]), {arguments.begin() + 3, arguments.end()});
    } else if (mode == "isolation" && arguments.size() >= 3) {
        MeasureIsolation(std::stoull(arguments[1]), {arguments.begin() + 2, arguments.end()});
    } else if (mode == "pace" && arguments.size() >= 3) {
        MeasurePaces(std::stoull(arguments[1]), {arguments.begin() + 2, arguments.end()});
    } else {
        std::fputs(
            "usage: bus_load latency ROUNDS ALARMS DAEMON [ARGUMENT]... [-- PEER [ARGUMENT]...]...\n"
            "       bus_load isolation EVENTS DAEMON [ARGUMENT]...\n"
            "       bus_load pace EVENTS DAEMON [ARGUMENT]...\n",
            stderr);
        return 2;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run({argv + 1, argv + argc});
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "bus_load: %s\n", exception.what());
        return 1;
    }
}
