#include "companions/mqtt/Publisher.h"

#include "companions/mqtt/Log.h"
#include "companions/mqtt/Uptime.h"

#include <poll.h>

#include <tuple>
#include <utility>

namespace kelto::halvek::mqtt {

namespace {

constexpr Publisher::Milliseconds shortestBackOff{1000};
constexpr Publisher::Milliseconds longestBackOff{60000};

const char* NameOf(Protocol protocol) {
    return protocol == Protocol::Version5 ? "5" : "3.1.1";
}

}  // namespace

Publisher::Publisher(Settings first, CameraFacts firstFacts, const Identity& own, EventQueue& events,
                     StatusBoard& status, Wake& ownWake)
    : identity(own),
      queue(events),
      board(status),
      wake(ownWake),
      settings(std::move(first)),
      facts(std::move(firstFacts)),
      gate(companion::EventPipe::defaultPath),
      backOff(shortestBackOff, longestBackOff) {
    gate.SetLists(settings.post, settings.postRegions);
}

void Publisher::Start() {
    thread = std::thread([this] {
        Run();
        ended.set_value();
    });
}

void Publisher::Reload(Settings other, CameraFacts otherFacts) {
    {
        const std::lock_guard lock(mutex);
        newSettings.emplace(std::move(other), std::move(otherFacts));
    }
    orders.reload = true;
    wake.Set();
}

bool Publisher::Stop(Milliseconds patience) {
    orders.stop = true;
    wake.Set();
    if (ended.get_future().wait_for(patience) != std::future_status::ready) {
        thread.detach();
        return false;
    }
    thread.join();
    return true;
}

void Publisher::Run() {
    while (!orders.stop) {
        TakeNewSettings();
        RunOnce();
    }
}

void Publisher::TakeNewSettings() {
    const std::lock_guard lock(mutex);
    orders.reload = false;
    if (!newSettings) {
        return;
    }
    std::tie(settings, facts) = *std::exchange(newSettings, std::nullopt);
    queue.SetLimits(settings.queue, settings.maxAge);
    gate.SetLists(settings.post, settings.postRegions);
    memory.hasTold = false;
    memory.predecessor.reset();
    protocol = Protocol::Version5;
    isVersion5Known = false;
    shortOnes = 0;
    problem.clear();
    memory.pictures = {};
    backOff.Reset();
}

Publisher::Loss::Loss(const ConnectionError& error, const Session* session)
    : reason(error.what()), wasClosedEarly(error.GetKind() == ConnectionError::Kind::ClosedEarly) {
    if (session != nullptr) {
        isProtocolRefused = session->IsProtocolRefused();
        isEventSuspected = session->IsEventSuspected();
        isPictureSuspected = session->IsPictureSuspected();
        acceptedAt = session->AcceptedAt();
    }
}

void Publisher::RunOnce() {
    Show(BridgeState::Kind::Connecting);
    std::optional<Session> session;
    try {
        session.emplace(Session::Surroundings{settings, identity, facts, queue, gate, memory, orders, wake}, protocol,
                        ++connections);
        const Session::End end = session->Run([this] {
            problem.clear();
            isVersion5Known = isVersion5Known || protocol == Protocol::Version5;
            Show(BridgeState::Kind::Connected);
            Log::Information("Connected to " + settings.broker.Text() + " as " + settings.id + ", MQTT " +
                             NameOf(protocol));
        });
        session.reset();
        if (end == Session::End::Conflict) {
            TellConflict();
        }
    } catch (const ConnectionError& error) {
        const Loss loss(error, session ? &*session : nullptr);
        // Its socket does not stay open for as long as we wait.
        session.reset();
        if (!orders.IsAny()) {
            TakeLoss(loss);
        }
    }
}

void Publisher::TakeLoss(const Loss& loss) {
    if (!loss.acceptedAt) {
        Told("Cannot connect to " + settings.broker.Text() + ": " + loss.reason);
        // Some brokers say nothing to a protocol that they do not know.
        if (loss.isProtocolRefused || (loss.wasClosedEarly && !isVersion5Known)) {
            protocol = protocol == Protocol::Version5 ? Protocol::Version311 : Protocol::Version5;
        }
        WaitFor(backOff.Next(), BridgeState::Kind::Waiting);
        return;
    }
    Told("The connection to " + settings.broker.Text() + " is lost: " + loss.reason);
    if (loss.isPictureSuspected) {
        memory.pictures.NoteFailure();
    }
    if (Uptime() < *loss.acceptedAt + steadyAfter) {
        TakeShortOne(loss);
        return;
    }
    shortOnes = 0;
    protocol = Protocol::Version5;
    backOff.ResetTo(lossSpread);
    WaitFor(backOff.Next(), BridgeState::Kind::Waiting);
}

void Publisher::TakeShortOne(const Loss& loss) {
    if (loss.isPictureSuspected || DropSuspect(loss)) {
        shortOnes = 0;
    } else if (++shortOnes >= mostShortOnes) {
        shortOnes = 0;
        TellConflict();
        return;
    }
    backOff.ResetTo(shortestBackOff * (1 << shortOnes));
    WaitFor(backOff.Next(), BridgeState::Kind::Waiting);
}

bool Publisher::DropSuspect(const Loss& loss) {
    if (!loss.isEventSuspected || !memory.current || ++memory.currentLosses < mostShortOnes) {
        return false;
    }
    Log::Warning("An event of type " + memory.current->event.type +
                 " was on its way each time the broker closed the connection: it is dropped");
    queue.CountRefused(*memory.current);
    memory.current.reset();
    return true;
}

void Publisher::Told(const std::string& text) {
    if (text != problem) {
        Log::Warning(text);
        problem = text;
    }
}

void Publisher::TellConflict() {
    Told("At " + settings.broker.Text() + " another client uses id " + settings.id +
         ": keeping away for ten minutes. Each camera needs an Id of its own");
    WaitFor(conflictWait, BridgeState::Kind::Conflict);
}

void Publisher::WaitFor(Milliseconds time, BridgeState::Kind kind) {
    const Milliseconds until = Uptime() + time;
    Show(kind, until);
    for (Milliseconds left = time; left.count() > 0 && !orders.IsAny(); left = until - Uptime()) {
        pollfd waiting{wake.Descriptor(), POLLIN, 0};
        poll(&waiting, 1, static_cast<int>(left.count()));
        wake.Clear();
    }
}

void Publisher::Show(BridgeState::Kind kind, Milliseconds nextAttempt) {
    const bool isConnected = kind == BridgeState::Kind::Connected;
    board.Set({kind, settings.broker.Text(), isConnected ? NameOf(protocol) : "", problem, nextAttempt});
}

}  // namespace kelto::halvek::mqtt
