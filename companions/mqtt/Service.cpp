#include "companions/mqtt/Service.h"

#include "companions/common/ClockState.h"
#include "companions/common/Json.h"
#include "companions/common/ServiceManager.h"
#include "companions/mqtt/CameraSettings.h"
#include "companions/mqtt/Log.h"
#include "companions/mqtt/Payloads.h"
#include "companions/mqtt/Uptime.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace kelto::halvek::mqtt {

namespace {

constexpr const char* pipeName = "zz-mqtt";
/** How often the pipe is read before signals have their turn. */
constexpr int mostReads = 16;
constexpr std::chrono::milliseconds longestRest{3600000};
/** Between two updates of what is shown. */
constexpr std::chrono::milliseconds showingPause{1000};
/** What an orderly end may take: what is queued and a goodbye, or only to see that there is no connection. */
constexpr std::chrono::milliseconds goodbyePatience{5000};
constexpr std::chrono::milliseconds endPatience{500};

sigset_t CaughtSignals() {
    sigset_t caught;
    sigemptyset(&caught);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&caught, number);
    }
    return caught;
}

std::string StatusFolder() {
    const char* folder = getenv("RUNTIME_DIRECTORY");
    return folder == nullptr ? StatusFile::defaultFolder : folder;
}

}  // namespace

void Service::BlockSignals() {
    const sigset_t caught = CaughtSignals();
    pthread_sigmask(SIG_BLOCK, &caught, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

Service::Service(Configuration first)
    : configuration(std::move(first)),
      identity(Identity::Make()),
      nextNumber(Identity::FirstNumber()),
      board(boardWake),
      queue(publisherWake, configuration.settings.queue, configuration.settings.maxAge),
      reader([this](const companion::ReceivedEvent& event) { Take(event); }),
      statusFile(StatusFolder()) {
    pipe.emplace(pipeName);
    const sigset_t caught = CaughtSignals();
    signals.Reset(signalfd(-1, &caught, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals.IsOpen()) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    uint64_t limit = 0;
    if (sd_watchdog_enabled(0, &limit) > 0) {
        watchdog = Milliseconds(limit / 2000);
    }
}

void Service::Run() {
    reader.TakeLeftOver(pipe->LeftOver());
    publisher.emplace(configuration.settings, CameraSettings::Read(CameraSettings::Path()), identity, queue, board,
                      publisherWake);
    publisher->Start();
    // Who waits until it is ready may ask it at once.
    ShowStatus();
    companion::ServiceManager::Tell("READY=1");
    while (!isStopping) {
        std::array<pollfd, 3> polled{
            {{pipe->Descriptor(), POLLIN, 0}, {signals.Get(), POLLIN, 0}, {boardWake.Descriptor(), POLLIN, 0}}};
        poll(polled.data(), polled.size(), static_cast<int>(UntilNextTick().count()));
        ReadPipe();
        if (polled[1].revents != 0) {
            TakeSignal();
        }
        if (polled[2].revents != 0) {
            boardWake.Clear();
            mayHaveChanged = true;
            nextShowing = Milliseconds(0);
        }
        Tick();
    }
    Stop();
}

void Service::Take(const companion::ReceivedEvent& event) {
    if (!configuration.settings.Takes(event.type)) {
        return;
    }
    QueuedEvent queued;
    queued.event = event;
    queued.number = nextNumber++;
    queued.time = companion::ClockState::Now();
    queued.isClockSynced = companion::ClockState::IsSynced();
    queued.receivedAt = Uptime();
    queue.Push(std::move(queued));
}

void Service::ReadPipe() {
    for (int count = 0; count < mostReads; ++count) {
        const std::string_view bytes = pipe->Read();
        if (bytes.empty()) {
            reader.CloseOverdue(Uptime());
            return;
        }
        reader.Take(bytes, Uptime());
        mayHaveChanged = true;
    }
}

void Service::TakeSignal() {
    signalfd_siginfo info{};
    while (read(signals.Get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo == SIGHUP) {
            Reload();
        } else {
            isStopping = true;
        }
    }
}

void Service::Reload() {
    try {
        Configuration other = Configuration::Load(configuration.path, Configuration::Secrets::Wanted);
        for (const Finding& finding : other.findings) {
            (finding.isError ? Log::Error : Log::Warning)(other.Text(finding));
        }
        if (other.HasErrors()) {
            Log::Error("The new configuration is wrong: going on with the old one");
            return;
        }
        configuration = std::move(other);
        publisher->Reload(configuration.settings, CameraSettings::Read(CameraSettings::Path()));
        Log::Information("Read the configuration anew");
    } catch (const std::system_error& error) {
        Log::Error(std::string("Going on with the old configuration: ") + error.what());
    }
}

void Service::Tick() {
    const Milliseconds now = Uptime();
    if (watchdog && now >= nextWatchdog) {
        companion::ServiceManager::Tell("WATCHDOG=1");
        nextWatchdog = now + *watchdog;
    }
    if (mayHaveChanged && now >= nextShowing) {
        ShowStatus();
        nextShowing = now + showingPause;
    }
}

void Service::ShowStatus() {
    if (const std::string text = StatusText(); text != shownText) {
        companion::ServiceManager::Tell("STATUS=" + text);
        shownText = text;
    }
    const std::string json = StatusJson();
    // The other thread goes on meanwhile: what has changed is looked at once more.
    mayHaveChanged = json != shownJson;
    if (mayHaveChanged) {
        statusFile.Write(json);
        shownJson = json;
    }
}

std::string Service::StatusText() const {
    const BridgeState state = board.Get();
    const std::string place = state.broker.empty() ? "" : " " + state.broker;
    switch (state.kind) {
        case BridgeState::Kind::Connecting:
            return "Connecting to" + place;
        case BridgeState::Kind::Connected:
            return "Connected to" + place + ", MQTT " + state.protocol;
        case BridgeState::Kind::Waiting:
        case BridgeState::Kind::Conflict:
            return state.problem;
    }
    return "";
}

std::string Service::StatusJson() const {
    const BridgeState state = board.Get();
    companion::Json json;
    json.BeginObject().Key("format").Number(1);
    json.Key("tool").String("halvek-mqtt " HALVEK_MQTT_VERSION);
    json.Key("verb").String("status");
    json.Key("pid").Number(getpid());
    json.Key("since").String(identity.since);
    json.Key("id").String(configuration.settings.id);
    json.Key("broker").String(state.broker);
    json.Key("state").String(state.Word());
    json.Key("protocol").String(state.protocol);
    json.Key("problem").String(state.problem);
    json.Key("queued").Number(static_cast<int64_t>(queue.Length()));
    if (state.kind == BridgeState::Kind::Waiting || state.kind == BridgeState::Kind::Conflict) {
        const Milliseconds left = state.nextAttempt - Uptime();
        const int64_t whole = (companion::ClockState::Now() + left.count() + 999) / 1000 * 1000;
        json.Key("next_attempt").String(companion::ClockState::IsoTime(whole));
    }
    const Counters counters = queue.Count();
    json.Key("counters").BeginObject();
    Payloads::AddCounters(json, counters);
    return json.EndObject().EndObject().Text();
}

std::chrono::milliseconds Service::UntilNextTick() const {
    const Milliseconds now = Uptime();
    Milliseconds rest = longestRest;
    if (watchdog) {
        rest = std::min(rest, nextWatchdog - now);
    }
    if (mayHaveChanged) {
        rest = std::min(rest, nextShowing - now);
    }
    if (const std::optional<Milliseconds> deadline = reader.Deadline()) {
        rest = std::min(rest, *deadline - now);
    }
    return std::max(rest, Milliseconds(0));
}

void Service::Stop() {
    companion::ServiceManager::Tell("STOPPING=1");
    // From here on nothing more comes: the daemon does not open a pipe that is gone.
    pipe->ReadToItsEnd([this](std::string_view bytes) { reader.Take(bytes, Uptime()); });
    pipe.reset();
    const bool isConnected = board.Get().kind == BridgeState::Kind::Connected;
    const bool hasEnded = publisher->Stop(isConnected ? goodbyePatience : endPatience);
    if (const uint64_t waiting = queue.Count().Waiting(); waiting > 0) {
        Log::Warning("Ends before it could publish all events: " + std::to_string(waiting) + " are lost");
    }
    if (!hasEnded) {
        // It waits for the network, and nothing in this process may be taken apart under it.
        _exit(0);
    }
}

}  // namespace kelto::halvek::mqtt
