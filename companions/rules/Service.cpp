#include "companions/rules/Service.h"

#include "companions/common/ConfigFile.h"
#include "companions/common/Printable.h"
#include "companions/common/ServiceManager.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <exception>
#include <initializer_list>
#include <system_error>
#include <utility>

namespace kelto::companion::rules {

namespace {

using Milliseconds = Rule::Milliseconds;

/** How long a status may be out of date. */
constexpr Milliseconds statusDelay{10000};
/** What a full pipe holds, less than which is there is read before a window is closed. */
constexpr size_t mostReadAtOnce = ListenerPipe::wantedCapacity;

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/** Goes on while the camera sleeps, and does not step when its clock is set. */
Milliseconds Now() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return std::chrono::seconds(now.tv_sec) +
           std::chrono::duration_cast<Milliseconds>(std::chrono::nanoseconds(now.tv_nsec));
}

sigset_t SetOf(std::initializer_list<int> numbers) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers) {
        sigaddset(&set, number);
    }
    return set;
}

UniqueFd OpenSignals() {
    const sigset_t ours = SetOf({SIGHUP, SIGINT, SIGTERM});
    sigprocmask(SIG_BLOCK, &ours, nullptr);
    // No terminal and no reader of the records that has gone may stop who holds the pipe.
    for (const int number : {SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU}) {
        std::signal(number, SIG_IGN);
    }
    UniqueFd signals(signalfd(-1, &ours, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!signals.IsOpen()) {
        Fail("signalfd");
    }
    return signals;
}

UniqueFd OpenTimer() {
    UniqueFd timer(timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!timer.IsOpen()) {
        Fail("timerfd_create");
    }
    return timer;
}

void Watch(const UniqueFd& poll, int fd) {
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.fd = fd;
    if (epoll_ctl(poll.Get(), EPOLL_CTL_ADD, fd, &wanted) != 0) {
        Fail("epoll_ctl");
    }
}

}  // namespace

Service::Service(CommandLine commandLine) : line(std::move(commandLine)), eventPipe(line.eventPipe) {}

ExitStatus Service::Run() {
    auto rules = ReadRules();
    if (!rules) {
        return exitConfiguration;
    }
    engine.SetRules(std::move(*rules));
    signals = OpenSignals();
    timer = OpenTimer();
    ListenerPipe pipe("zz-rules", line.pipeFolder);
    EventReader reader([this](const ReceivedEvent& event) { Take(event); });
    reader.TakeLeftOver(pipe.LeftOver());
    if (staleEvents > 0) {
        log.Notice(std::to_string(staleEvents) + " events that were left from before are left out");
    }
    TellStatus();
    ServiceManager::Tell("READY=1");
    Loop(pipe, reader);
    ServiceManager::Tell("STOPPING=1");
    pipe.ReadToItsEnd([&reader](std::string_view bytes) { reader.Take(bytes, Now()); });
    return exitYes;
}

std::optional<std::vector<Rule>> Service::ReadRules() {
    try {
        const ConfigFile file = ConfigFile::Load(line.rules);
        RuleFile read(file);
        for (const RuleFinding& finding : read.findings) {
            log.Error(file.At(finding.place) + ": error: " + finding.text + " [" + finding.id + "]");
        }
        if (read.findings.empty()) {
            refusal.clear();
            return std::move(read.rules);
        }
        refusal = file.At(read.findings.front().place) + ": " + read.findings.front().text;
    } catch (const std::exception& error) {
        refusal = std::string("cannot read the rules: ") + error.what();
        log.Error(refusal);
    }
    return std::nullopt;
}

void Service::Loop(ListenerPipe& pipe, EventReader& reader) {
    const UniqueFd poll(epoll_create1(EPOLL_CLOEXEC));
    if (!poll.IsOpen()) {
        Fail("epoll_create1");
    }
    for (const int fd : {pipe.Descriptor(), signals.Get(), timer.Get()}) {
        Watch(poll, fd);
    }
    while (!isStopping) {
        ArmTimer(reader);
        std::array<epoll_event, 3> ready{};
        const int count = epoll_wait(poll.Get(), ready.data(), static_cast<int>(ready.size()), -1);
        if (count < 0 && errno != EINTR) {
            Fail("epoll_wait");
        }
        // What waits in the pipe has happened before now, so that it comes before what is due now.
        ReadPipe(pipe, reader);
        engine.Expire(Now());
        TakeTimer();
        TakeSignal();
        if (Now() - statusAt >= statusDelay) {
            TellStatus();
        }
    }
}

void Service::ReadPipe(ListenerPipe& pipe, EventReader& reader) {
    size_t total = 0;
    while (total < mostReadAtOnce) {
        const std::string_view bytes = pipe.Read();
        if (bytes.empty()) {
            reader.CloseOverdue(Now());
            return;
        }
        total += bytes.size();
        reader.Take(bytes, Now());
    }
}

void Service::Take(const ReceivedEvent& event) {
    // Nobody knows how old it is: a rule that acted on it now might open a door that was long closed.
    if (event.isStale) {
        ++staleEvents;
        return;
    }
    engine.Take(event, Now());
}

void Service::TakeTimer() {
    uint64_t times = 0;
    if (read(timer.Get(), &times, sizeof(times)) > 0) {
        armedFor.reset();
    }
}

void Service::TakeSignal() {
    signalfd_siginfo received{};
    while (read(signals.Get(), &received, sizeof(received)) == static_cast<ssize_t>(sizeof(received))) {
        if (received.ssi_signo == SIGHUP) {
            Reload();
        } else {
            isStopping = true;
        }
    }
}

void Service::Reload() {
    if (auto rules = ReadRules()) {
        engine.SetRules(std::move(*rules));
        log.Notice("the rules are read anew: " + std::to_string(engine.RuleCount()));
    } else {
        log.Error("the rules stay as they were");
    }
    TellStatus();
}

void Service::ArmTimer(const EventReader& reader) {
    std::optional<Milliseconds> next = engine.NextEnd();
    const auto earlier = [&](std::optional<Milliseconds> other) {
        next = next && other ? std::min(*next, *other) : next ? next : other;
    };
    earlier(reader.Deadline());
    if (StatusText() != status) {
        earlier(statusAt + statusDelay);
    }
    if (next == armedFor) {
        return;
    }
    armedFor = next;
    itimerspec wanted{};
    if (next) {
        // A time of zero would switch it off.
        const auto milliseconds = std::max<int64_t>(next->count(), 1);
        wanted.it_value.tv_sec = static_cast<time_t>(milliseconds / 1000);
        wanted.it_value.tv_nsec = static_cast<long>(milliseconds % 1000 * 1000000);
    }
    timerfd_settime(timer.Get(), TFD_TIMER_ABSTIME, &wanted, nullptr);
}

bool Service::Post(const Rule& rule, const PostedEvent& /*event*/, const std::string& block) {
    if (eventPipe.PostBlock(block) != EventPipe::Outcome::Posted) {
        if (droppedInARow++ == 0) {
            log.Warning("events are dropped: " + eventPipe.Text());
        }
        return false;
    }
    if (droppedInARow > 0) {
        log.Notice("events are posted again, " + std::to_string(droppedInARow) + " were dropped");
        droppedInARow = 0;
    }
    toldRefused.erase(rule.name);
    return true;
}

void Service::Refuse(const Rule& rule, const std::string& why) {
    if (toldRefused.insert(rule.name).second) {
        log.Warning("the rule " + rule.name + " could not post: " + why);
    }
}

void Service::TellStatus() {
    if (const uint64_t givenWay = engine.GivenWay(); givenWay > toldGivenWay) {
        log.Warning(std::to_string(givenWay - toldGivenWay) + " windows gave way to others: there were more than " +
                    std::to_string(Windows::mostWindows));
        toldGivenWay = givenWay;
    }
    status = StatusText();
    statusAt = Now();
    ServiceManager::Tell("STATUS=" + status);
}

std::string Service::StatusText() const {
    const Engine::Counts& counts = engine.GetCounts();
    std::string text = std::to_string(engine.RuleCount()) + " rules: " + std::to_string(counts.events) + " events, " +
                       std::to_string(counts.posts) + " posted, " + std::to_string(counts.suppressed) + " held off, " +
                       std::to_string(counts.dropped) + " dropped, " + std::to_string(counts.refused) + " refused, " +
                       std::to_string(engine.OpenWindows()) + " windows open, " + std::to_string(engine.GivenWay()) +
                       " gave way";
    if (!refusal.empty()) {
        text.append("; the rules that were read last are wrong: ").append(Printable(refusal));
    }
    return text;
}

}  // namespace kelto::companion::rules
