#include "companions/ctl/VerbRecord.h"

#include "companions/ctl/Failure.h"
#include "companions/ctl/OptionReader.h"
#include "companions/ctl/Terminal.h"
#include "companions/ctl/listen/EventRelay.h"
#include "companions/ctl/listen/StalePipes.h"
#include "companions/ctl/recording/CameraSignals.h"
#include "companions/ctl/recording/InputRecorder.h"
#include "companions/ctl/recording/RecordingFile.h"
#include "kelto/core/StringUtil.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* help =
    "Records what happens to the running daemon in FILE, one JSON object per line, until it is interrupted: events\n"
    "that others post, and those of its own sources. \"replay\" tells what other settings would have done.\n"
    "  --bus         also what the camera says on the message bus: alarm inputs, alerts, and whether the head rests;\n"
    "                then sources are played anew that the settings of that time did not have\n"
    "  --limit SIZE  so much at most, in FILE and FILE.1 together: 4M, 500K, or bytes (4M)\n"
    "What is recorded is written when there are 64 KiB of it, when it is a minute old, and at the end. A full disk\n"
    "costs the daemon nothing. Nothing is written over a file that holds something.\n"
    "Status: it dies of the signal when all is written; 3 if it cannot record.\n";

constexpr const char* purpose = "record";
constexpr size_t defaultLimit = size_t{4} << 20U;
constexpr size_t leastLimit = size_t{16} << 10U;
constexpr std::array endingSignals = {SIGHUP, SIGINT, SIGTERM};

size_t ParseLimit(const std::optional<std::string>& text) {
    if (!text) {
        return defaultLimit;
    }
    std::string digits = *text;
    size_t unit = 1;
    if (digits.ends_with('K') || digits.ends_with('M')) {
        unit = size_t{1} << (digits.back() == 'K' ? 10U : 20U);
        digits.pop_back();
    }
    int32_t number = 0;
    constexpr int32_t most = 2000;
    if (!core::StringUtil::TryParse(digits, number) || number <= 0 || (unit > 1024 && number > most) ||
        static_cast<size_t>(number) * unit < leastLimit) {
        throw UsageError("--limit is a size from 16K to 2000M, not " + *text);
    }
    return static_cast<size_t>(number) * unit;
}

/** Signals that end it, as something to wait for: what has been recorded is written first. */
companion::UniqueFd HoldSignals(sigset_t& before) {
    sigset_t held;
    sigemptyset(&held);
    for (const int number : endingSignals) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        if (action.sa_handler != SIG_IGN) {
            sigaddset(&held, number);
        }
    }
    sigprocmask(SIG_BLOCK, &held, &before);
    return companion::UniqueFd(signalfd(-1, &held, SFD_CLOEXEC | SFD_NONBLOCK));
}

/** The signal that came; 0 if none has. */
int SignalOf(const companion::UniqueFd& signals) {
    signalfd_siginfo info{};
    return read(signals.Get(), &info, sizeof(info)) == sizeof(info) ? static_cast<int>(info.ssi_signo) : 0;
}

class Recorder {
public:
    Recorder(EventRelay& from, RecordingFile& to, const companion::UniqueFd& endingBy)
        : relay(from), file(to), signals(endingBy) {}

    /** Until a signal comes and all is written. Returns the signal; 0 if the relay has ended by itself. */
    int Run() {
        int number = 0;
        while (number == 0) {
            std::array<pollfd, 2> waited{{{relay.Descriptor(), POLLIN, 0}, {signals.Get(), POLLIN, 0}}};
            const int patience = file.HasPending() ? static_cast<int>(file.Left().count()) : -1;
            if (poll(waited.data(), waited.size(), patience) == 0) {
                file.Flush();
            }
            if (waited[0].revents != 0 && !Take()) {
                return 0;
            }
            number = SignalOf(signals);
        }
        relay.StopReading();
        while (Take()) {
        }
        return number;
    }

    /** How many it has taken. */
    uint64_t Lines() const { return lines; }

private:
    /** False at the end. Only whole lines go on. */
    bool Take() {
        const std::string_view text = relay.Read();
        rest.append(text);
        const size_t end = rest.rfind('\n') + 1;
        lines += static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n'));
        if (end > 0) {
            file.Add(std::string_view(rest).substr(0, end));
            rest.erase(0, end);
        }
        return !text.empty();
    }

    EventRelay& relay;
    RecordingFile& file;
    const companion::UniqueFd& signals;
    std::string rest;
    uint64_t lines = 0;
};

ExitStatus RunRecord(const Invocation& invocation, Answer& answer) {
    const OptionReader options(invocation.words, {{"--limit", true}, {"--bus", false}});
    const size_t limit = ParseLimit(options.Value("--limit"));
    if (options.Words().size() != 1 || options.Words().front().empty()) {
        throw UsageError("record wants one file");
    }
    answer.Flush();
    const bool hasBus = options.Has("--bus");
    const std::optional<int32_t> idleState = hasBus ? CameraSignals::AskIdleState() : std::nullopt;
    StalePipes::Remove(purpose);
    sigset_t before{};
    const companion::UniqueFd signals = HoldSignals(before);
    RecordingFile file(options.Words().front(), limit);
    InputRecorder recorder;
    file.Add(recorder.Begin(hasBus));
    if (idleState) {
        file.Add(recorder.IdleState(*idleState));
    }
    EventRelay relay(
        {.pipeName = StalePipes::OwnName(purpose),
         .line = [&](const companion::ReceivedEvent& event, const ReadTime& time) { return recorder.Of(event, time); },
         .isMissed = [](const companion::ReceivedEvent&) { return true; },
         .droppedLine = [&](uint64_t count) { return recorder.Gap(count); },
         .makeOther = hasBus ? [&] { return std::make_unique<CameraSignals>(recorder); }
                             : std::function<std::unique_ptr<LineSource>()>()});
    Terminal::Complain("reading " + relay.PipePath());
    Recorder running(relay, file, signals);
    const int number = running.Run();
    recorder.CountOthers(running.Lines());
    file.Add(recorder.End());
    file.Close();
    relay.Finish();
    if (number == 0) {
        throw Failure("the process that reads " + relay.PipePath() + " has ended");
    }
    signal(number, SIG_DFL);
    raise(number);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return exitYes;
}

}  // namespace

const Verb verbRecord{"record", "FILE [--limit SIZE] [--bus]", "keeps what happens to the daemon in a file", help,
                      RunRecord};

}  // namespace kelto::halvek::ctl
