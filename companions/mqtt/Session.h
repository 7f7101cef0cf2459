#pragma once

#include "companions/mqtt/CameraFacts.h"
#include "companions/mqtt/Connection.h"
#include "companions/mqtt/Description.h"
#include "companions/mqtt/EventQueue.h"
#include "companions/mqtt/Identity.h"
#include "companions/mqtt/OnvifTopics.h"
#include "companions/mqtt/PictureTurn.h"
#include "companions/mqtt/Pictures.h"
#include "companions/mqtt/PostAnswers.h"
#include "companions/mqtt/PostGate.h"
#include "companions/mqtt/Settings.h"
#include "companions/mqtt/Topics.h"
#include "companions/mqtt/Wake.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kelto::halvek::mqtt {

/** What outlives a connection. */
struct SessionMemory {
    /** The event that is being published; it stays here until the broker has all of it. */
    std::optional<QueuedEvent> current;
    /** How many of its messages the broker has. */
    size_t currentStep = 0;
    /** How often the connection was lost just after it had been sent. */
    int currentLosses = 0;

    /** Whether our own info has been at the broker. */
    bool hasTold = false;
    /** Whose info was there before ours: an earlier run of this program, most likely. */
    std::optional<Identity> predecessor;

    /** The components of the description that home automation was given. */
    std::set<std::string> described;

    Pictures pictures;

    /** How many posts have been answered. */
    uint64_t posts = 0;

    Counters toldCounters;
    bool hasToldCounters = false;
    std::chrono::milliseconds toldCountersAt{};
};

/** What makes a session end in an orderly way. Set by any thread. */
struct SessionOrders {
    std::atomic<bool> stop{false};
    std::atomic<bool> reload{false};

    bool IsAny() const { return stop || reload; }
};

/** A message that the broker has not acknowledged yet. */
struct InFlight {
    int number = 0;
    std::string topic;
    bool isEvent = false;
    std::chrono::milliseconds sentAt{};
    bool isDone = false;
    int reason = 0;
    std::function<void(bool isTaken)> after;
};

/**
 * What is said over one connection: who we are, how the alarms are, and then one event after the other, each when the
 * broker has acknowledged the one before. One thread.
 */
class Session final : private ConnectionObserver {
public:
    using Milliseconds = std::chrono::milliseconds;

    /** How long a broker may take for a word that it owes. */
    static constexpr Milliseconds patience{30000};
    /** How long an orderly end may take for what is still queued, and for saying goodbye. */
    static constexpr Milliseconds flushTime{2000};
    /** Home automation that has just started gets everything again, within this time: many cameras have heard it. */
    static constexpr Milliseconds repeatSpread{10000};
    /** Between two messages with the counters. */
    static constexpr Milliseconds countersPause{60000};
    /** A connection that is lost that soon after an event was sent may have been lost because of it. */
    static constexpr Milliseconds suspicion{1000};

    enum class End { Stopped, Reloaded, Conflict };

    /** What is only needed while a session runs; all of it must live as long as it does. */
    struct Surroundings {
        const Settings& settings;
        const Identity& identity;
        const CameraFacts& facts;
        EventQueue& queue;
        PostGate& gate;
        SessionMemory& memory;
        SessionOrders& orders;
        Wake& wake;
    };

    /** @param number of the connection, from 1. Throws ConnectionError. */
    Session(const Surroundings& surroundings, Protocol protocol, uint64_t number);
    ~Session() override;

    /** @param accepted called when the broker has taken us. Throws ConnectionError. */
    End Run(const std::function<void()>& accepted);

    /** When the broker took us; nothing if it has not. */
    std::optional<Milliseconds> AcceptedAt() const { return acceptedAt; }
    /** Whether the broker said that it does not know this protocol. */
    bool IsProtocolRefused() const { return isProtocolRefused; }
    /** After the connection was lost: whether the event that is on its way may be the reason. */
    bool IsEventSuspected() const;
    /** Likewise of a picture. */
    bool IsPictureSuspected() const;

private:
    void OnConnected(int reason, const std::string& text) override;
    void OnPublished(int number, int reason) override;
    void OnMessage(const ReceivedMessage& message) override;

    void WaitForWelcome();
    void TurnUntilRefused(Milliseconds most);
    void Open();
    void QueueGreeting();
    void QueueAlarms();
    void QueueAlarm(const AlarmState& alarm);
    void QueueAlarmRemoval(const AlarmName& name);
    void Turn(Milliseconds most);
    void FinishInFlight();
    bool SendNext();
    bool SendGreeting();
    bool SendPostAnswer();
    bool SendCounters();
    bool SendOverdueAlarm();
    bool SendEvent();
    bool SendStep();
    bool SendPicture();
    std::vector<Message> StepsOf(const QueuedEvent& event);
    Message EventMessage(const QueuedEvent& event, const std::string& topic) const;
    void EndOfEvent();
    void Send(const Message& message, std::function<void(bool isTaken)> after);
    void SayGoodbye();
    void TakeInfo(const ReceivedMessage& message);
    void TakeAlarm(const ReceivedMessage& message);
    void TakeHomeAutomation(const ReceivedMessage& message);
    Milliseconds UntilNextDeed() const;

    // Constant after construction.
    Surroundings around;
    Topics topics;
    std::optional<OnvifTopics> onvif;
    uint64_t number;
    Message ownInfo;

    Connection connection;
    std::optional<Milliseconds> acceptedAt;
    std::string refusal;
    bool isProtocolRefused = false;
    bool isConflict = false;
    /** No connection of ours has told our info before. */
    const bool isFirst;
    /** What the library has sent before it said under which number. */
    int sentEarly = 0;
    bool isGreetingDone = false;
    std::optional<InFlight> inFlight;
    /** What is said at the beginning, and other short messages of our own. */
    std::deque<Message> greeting;
    /** When everything is said once more. */
    std::optional<Milliseconds> repeatAt;
    Description description;
    PostAnswers postAnswers;
    PictureTurn pictureTurn;
};

}  // namespace kelto::halvek::mqtt
