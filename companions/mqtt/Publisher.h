#pragma once

#include "companions/common/BackOff.h"
#include "companions/mqtt/CameraFacts.h"
#include "companions/mqtt/Connection.h"
#include "companions/mqtt/EventQueue.h"
#include "companions/mqtt/Identity.h"
#include "companions/mqtt/Session.h"
#include "companions/mqtt/Settings.h"
#include "companions/mqtt/StatusBoard.h"
#include "companions/mqtt/Wake.h"

#include <chrono>
#include <cstdint>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace kelto::halvek::mqtt {

/**
 * The thread that talks to the broker: one connection after the other, and in between it waits.
 *
 * It may stand still for as long as a connection attempt or a look-up of a name takes, which nothing can interrupt. So
 * nobody waits for it without a limit, and Stop may fail.
 */
class Publisher {
public:
    using Milliseconds = std::chrono::milliseconds;

    /** After which a connection counts as one that works. */
    static constexpr Milliseconds steadyAfter{5000};
    /** Connections in a row that ended earlier: somebody else has our id, and each of us throws the other out. */
    static constexpr int mostShortOnes = 3;
    /** How long to keep away then. */
    static constexpr Milliseconds conflictWait{600000};
    /**
     * The first wait after a connection that worked is up to this: all cameras have lost it at the same moment. With
     * it, a broker sees no more than 20 connects a second of 200 cameras.
     */
    static constexpr Milliseconds lossSpread{30000};

    /** What is published; all but settings and facts must live as long as this does. */
    Publisher(Settings first, CameraFacts firstFacts, const Identity& own, EventQueue& events, StatusBoard& status,
              Wake& ownWake);
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    void Start();

    /** Goes on with others, over a new connection. */
    void Reload(Settings other, CameraFacts otherFacts);

    /** Has it say goodbye and end. Returns false if it has not within that time: the process must end without it. */
    bool Stop(Milliseconds patience);

private:
    /** How a connection, or the attempt to make one, has ended. */
    struct Loss {
        std::string reason;
        bool wasClosedEarly = false;
        bool isProtocolRefused = false;
        bool isEventSuspected = false;
        bool isPictureSuspected = false;
        std::optional<Milliseconds> acceptedAt;

        Loss(const ConnectionError& error, const Session* session);
    };

    void Run();
    void RunOnce();
    void TakeNewSettings();
    void TakeLoss(const Loss& loss);
    void TakeShortOne(const Loss& loss);
    bool DropSuspect(const Loss& loss);
    void Told(const std::string& problem);
    void TellConflict();
    void WaitFor(Milliseconds time, BridgeState::Kind kind);
    void Show(BridgeState::Kind kind, Milliseconds nextAttempt = {});

    // Constant after construction.
    const Identity& identity;
    EventQueue& queue;
    StatusBoard& board;
    Wake& wake;

    std::thread thread;
    std::promise<void> ended;
    SessionOrders orders;

    std::mutex mutex;
    /** Guarded by the mutex. */
    std::optional<std::pair<Settings, CameraFacts>> newSettings;

    // The thread's own.
    Settings settings;
    CameraFacts facts;
    PostGate gate;
    SessionMemory memory;
    companion::BackOff backOff;
    Protocol protocol = Protocol::Version5;
    bool isVersion5Known = false;
    uint64_t connections = 0;
    int shortOnes = 0;
    std::string problem;
};

}  // namespace kelto::halvek::mqtt
