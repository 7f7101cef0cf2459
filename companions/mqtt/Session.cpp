#include "companions/mqtt/Session.h"

#include "companions/common/BackOff.h"
#include "companions/mqtt/Log.h"
#include "companions/mqtt/Payloads.h"
#include "companions/mqtt/Uptime.h"

#include <mqtt_protocol.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace kelto::halvek::mqtt {

namespace {

constexpr Session::Milliseconds forEver{3600000};
/** States that an earlier run has left at the broker, and the like: more of them are not looked after. */
constexpr size_t longestGreeting = 1000;
/** From here on a broker's word is a refusal. */
constexpr int firstRefusal = 128;
constexpr const char* homeAutomation = "homeassistant/status";

}  // namespace

Session::Session(const Surroundings& surroundings, Protocol protocol, uint64_t connectionNumber)
    : around(surroundings),
      topics(around.settings.prefix, around.settings.id),
      onvif(around.settings.onvif.empty() ? std::nullopt : std::optional<OnvifTopics>(around.settings.onvif)),
      number(connectionNumber),
      ownInfo(Message::State(topics.Info(), Payloads::Info(around.identity), Content::Json)),
      connection(around.settings, protocol, Message::State(topics.Status(), Payloads::offline), *this),
      isFirst(!around.memory.hasTold),
      description(around.settings, around.facts, around.queue, topics, around.memory.described),
      postAnswers(topics, around.gate, around.queue, around.memory.posts),
      pictureTurn(around.settings, around.facts, topics, around.memory.pictures) {}

Session::~Session() {
    around.queue.SetConnection(0);
}

Session::End Session::Run(const std::function<void()>& accepted) {
    connection.Open();
    WaitForWelcome();
    around.queue.SetConnection(number);
    accepted();
    Open();
    std::optional<Milliseconds> flushUntil;
    while (!isConflict) {
        if (around.orders.IsAny() && !flushUntil) {
            flushUntil = Uptime() + flushTime;
        }
        const bool isBusy = inFlight || SendNext();
        if (flushUntil && (!isBusy || Uptime() > *flushUntil)) {
            SayGoodbye();
            return around.orders.stop ? End::Stopped : End::Reloaded;
        }
        Turn(UntilNextDeed());
        FinishInFlight();
    }
    // The topics are the other one's now: our last will would overwrite its state.
    connection.Close();
    return End::Conflict;
}

void Session::WaitForWelcome() {
    const Milliseconds deadline = Uptime() + patience;
    while (!acceptedAt) {
        if (around.orders.IsAny()) {
            throw ConnectionError("Stopped while connecting");
        }
        if (Uptime() > deadline) {
            throw ConnectionError("The broker does not answer");
        }
        TurnUntilRefused(deadline - Uptime());
    }
}

void Session::TurnUntilRefused(Milliseconds most) {
    try {
        Turn(most);
    } catch (const ConnectionError&) {
        // The library only says that the connection is over.
        if (refusal.empty()) {
            throw;
        }
    }
    if (!refusal.empty()) {
        throw ConnectionError("The broker refuses the connection: " + refusal);
    }
}

void Session::Open() {
    // Another one with our id tells who it is in the same place.
    connection.Subscribe(topics.Info(), 0);
    // What an earlier run has left there; it is cleared, since nobody knows what has happened since.
    connection.Subscribe(topics.AlarmFilter(), 0);
    if (around.settings.hasDiscovery) {
        connection.Subscribe(homeAutomation, 0);
        connection.Subscribe(topics.Discovery(), 0);
    }
    if (!around.settings.post.empty()) {
        connection.Subscribe(topics.PostFilter(), 1, true);
    }
    QueueGreeting();
}

void Session::QueueGreeting() {
    greeting.push_back(Message::State(topics.Status(), Payloads::online));
    greeting.push_back(ownInfo);
    QueueAlarms();
}

void Session::QueueAlarms() {
    for (const AlarmState& alarm : around.queue.Alarms()) {
        QueueAlarm(alarm);
    }
    for (const AlarmName& name : around.facts.alarms) {
        if (!around.queue.KnowsAlarm(name)) {
            QueueAlarmRemoval(name);
        }
    }
}

void Session::QueueAlarm(const AlarmState& alarm) {
    around.queue.MarkAlarmTold(alarm.name, alarm.version);
    if (std::optional<std::string> topic = topics.Alarm(alarm.name.first, alarm.name.second)) {
        greeting.push_back(Message::State(std::move(*topic), Payloads::Alarm(alarm.isOn)));
    }
    if (std::optional<Message> message =
            onvif ? onvif->AlarmMessage(alarm.name, alarm.isOn, alarm.time) : std::nullopt) {
        greeting.push_back(std::move(*message));
    }
}

void Session::QueueAlarmRemoval(const AlarmName& name) {
    if (std::optional<std::string> topic = topics.Alarm(name.first, name.second)) {
        greeting.push_back(Message::State(std::move(*topic), ""));
    }
    if (std::optional<Message> message = onvif ? onvif->AlarmRemoval(name) : std::nullopt) {
        greeting.push_back(std::move(*message));
    }
}

void Session::Turn(Milliseconds most) {
    connection.Turn(around.wake.Descriptor(), most);
    around.wake.Clear();
}

bool Session::SendNext() {
    if (repeatAt && Uptime() >= *repeatAt) {
        repeatAt.reset();
        description.Repeat();
        QueueGreeting();
    }
    if (SendGreeting()) {
        return true;
    }
    // By now what an earlier run has left has come.
    if (description.IsDue()) {
        std::ranges::move(description.Tell(), std::back_inserter(greeting));
    }
    if (!isGreetingDone) {
        isGreetingDone = true;
        connection.Unsubscribe(topics.AlarmFilter());
        if (around.settings.hasDiscovery) {
            connection.Unsubscribe(topics.Discovery());
        }
    }
    return SendGreeting() || SendPostAnswer() || SendCounters() || SendOverdueAlarm() || SendEvent() ||
           SendPostAnswer();
}

bool Session::SendGreeting() {
    if (greeting.empty()) {
        return false;
    }
    const Message message = std::move(greeting.front());
    greeting.pop_front();
    const bool isInfo = message.topic == ownInfo.topic;
    Send(message,
         [this, isInfo](bool isTaken) { around.memory.hasTold = around.memory.hasTold || (isInfo && isTaken); });
    return true;
}

bool Session::SendPostAnswer() {
    const std::optional<Message> answer = postAnswers.Next();
    if (answer) {
        Send(*answer, [](bool) {});
    }
    return answer.has_value();
}

bool Session::SendCounters() {
    SessionMemory& memory = around.memory;
    const Counters counters = around.queue.Count();
    const bool isNew = !memory.hasToldCounters || counters != memory.toldCounters;
    if (!isNew || (memory.hasToldCounters && Uptime() < memory.toldCountersAt + countersPause)) {
        return false;
    }
    memory.hasToldCounters = true;
    memory.toldCounters = counters;
    memory.toldCountersAt = Uptime();
    Send({topics.Stats(), Payloads::Stats(counters), 0, true, Content::Json, std::nullopt}, [](bool) {});
    return true;
}

bool Session::SendOverdueAlarm() {
    const std::optional<AlarmState> alarm = around.queue.OverdueAlarm();
    if (!alarm) {
        return false;
    }
    QueueAlarm(*alarm);
    return SendGreeting();
}

bool Session::SendEvent() {
    SessionMemory& memory = around.memory;
    if (memory.current && memory.currentStep == 0 && around.queue.IsTooOld(*memory.current, Uptime())) {
        around.queue.CountTooOld(*memory.current);
        memory.current.reset();
    }
    while (!memory.current || !SendStep()) {
        if (SendPicture()) {
            return true;
        }
        memory.current = around.queue.Pop(Uptime());
        memory.currentStep = 0;
        memory.currentLosses = 0;
        // One that comes in between is seen at once.
        if (!memory.current && around.queue.WaitForEvent()) {
            return false;
        }
    }
    return true;
}

bool Session::SendStep() {
    SessionMemory& memory = around.memory;
    const std::vector<Message> steps = StepsOf(*memory.current);
    if (memory.currentStep >= steps.size()) {
        EndOfEvent();
        return false;
    }
    const bool isEvent = memory.currentStep == 0;
    Send(steps[memory.currentStep], [this, isEvent](bool isTaken) {
        ++around.memory.currentStep;
        if (isEvent && isTaken) {
            around.queue.CountSent();
            // A picture of now shows nothing of an event that has waited for this connection.
            if (around.memory.current->connection == number) {
                pictureTurn.Want();
            }
        } else if (isEvent) {
            around.queue.CountRefused(*around.memory.current);
        }
    });
    inFlight->isEvent = isEvent;
    return true;
}

bool Session::SendPicture() {
    const std::optional<Message> picture = around.orders.IsAny() ? std::nullopt : pictureTurn.Next();
    if (picture) {
        Send(*picture, [this](bool isTaken) {
            if (!isTaken) {
                around.memory.pictures.NoteFailure();
            }
        });
    }
    return picture.has_value();
}

std::vector<Message> Session::StepsOf(const QueuedEvent& event) {
    std::vector<Message> steps;
    const std::optional<std::string> topic = topics.Event(event.event.type);
    if (!topic) {
        if (around.memory.currentStep == 0) {
            around.queue.CountTooLong(event);
        }
        return steps;
    }
    steps.push_back(EventMessage(event, *topic));
    const std::optional<AlarmName> alarm = AlarmStates::NameIn(event.event);
    const bool isNews = alarm && event.alarmVersion > 0 && around.queue.IsAlarmNews(*alarm, event.alarmVersion);
    if (isNews) {
        if (const std::optional<std::string> state = topics.Alarm(alarm->first, alarm->second)) {
            steps.push_back(Message::State(*state, Payloads::Alarm(*event.event.Find("alarmState") == "1")));
        }
    }
    if (onvif && (isNews || !alarm)) {
        if (std::optional<Message> message = onvif->MessageOf(event)) {
            steps.push_back(std::move(*message));
        }
    }
    return steps;
}

Message Session::EventMessage(const QueuedEvent& event, const std::string& topic) const {
    const Milliseconds queued = Uptime() - event.receivedAt;
    Message message{topic, "", 1, false, Content::Json, std::nullopt};
    message.payload = Payloads::Event(event, around.identity, queued, event.connection != number);
    const auto left = around.settings.maxAge - std::chrono::duration_cast<std::chrono::seconds>(queued);
    message.expiry = std::max(left, std::chrono::seconds(1));
    return message;
}

void Session::EndOfEvent() {
    SessionMemory& memory = around.memory;
    if (const std::optional<AlarmName> alarm = AlarmStates::NameIn(memory.current->event)) {
        around.queue.MarkAlarmTold(*alarm, memory.current->alarmVersion);
    }
    memory.current.reset();
}

void Session::Send(const Message& message, std::function<void(bool isTaken)> after) {
    sentEarly = 0;
    inFlight.emplace();
    inFlight->topic = message.topic;
    inFlight->sentAt = Uptime();
    inFlight->after = std::move(after);
    try {
        inFlight->number = connection.Publish(message);
        inFlight->isDone = sentEarly == inFlight->number;
    } catch (const ConnectionError& error) {
        if (error.GetKind() != ConnectionError::Kind::UnfitMessage) {
            throw;
        }
        Log::Warning("The broker would not take a message to " + message.topic + ": " + error.what());
        inFlight->isDone = true;
        inFlight->reason = firstRefusal;
    }
}

void Session::FinishInFlight() {
    if (!inFlight) {
        return;
    }
    if (!inFlight->isDone) {
        if (Uptime() > inFlight->sentAt + patience) {
            throw ConnectionError("The broker does not acknowledge " + inFlight->topic);
        }
        return;
    }
    const InFlight done = *std::exchange(inFlight, std::nullopt);
    done.after(done.reason < firstRefusal);
}

bool Session::IsEventSuspected() const {
    return inFlight && inFlight->isEvent && !inFlight->isDone && Uptime() < inFlight->sentAt + suspicion;
}

bool Session::IsPictureSuspected() const {
    const std::optional<Milliseconds> sentAt = pictureTurn.SentAt();
    return sentAt && Uptime() < *sentAt + suspicion;
}

void Session::SayGoodbye() {
    const Milliseconds deadline = Uptime() + flushTime;
    Send(Message::State(topics.Status(), Payloads::offline), [](bool) {});
    while (inFlight && !inFlight->isDone && Uptime() < deadline) {
        Turn(deadline - Uptime());
    }
    connection.Close();
}

void Session::OnConnected(int reason, const std::string& text) {
    if (reason == 0) {
        acceptedAt = Uptime();
        return;
    }
    isProtocolRefused = reason == CONNACK_REFUSED_PROTOCOL_VERSION || reason == MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION;
    refusal = text;
}

void Session::OnPublished(int messageNumber, int reason) {
    if (!inFlight || inFlight->number != messageNumber) {
        sentEarly = messageNumber;
        return;
    }
    inFlight->isDone = true;
    inFlight->reason = reason;
    if (reason >= firstRefusal) {
        Log::Warning("The broker refuses a message to " + inFlight->topic + ": reason " + std::to_string(reason));
    }
}

void Session::OnMessage(const ReceivedMessage& message) {
    if (message.topic == topics.Info()) {
        TakeInfo(message);
    } else if (topics.IsAlarm(message.topic)) {
        TakeAlarm(message);
    } else if (message.topic == topics.Discovery()) {
        description.TakeLeft(message);
    } else if (message.topic == homeAutomation) {
        TakeHomeAutomation(message);
    } else if (const std::optional<std::string_view> level = topics.PostedLevel(message.topic)) {
        postAnswers.Take(*level, message);
    }
}

void Session::TakeInfo(const ReceivedMessage& message) {
    const std::optional<Identity> other = Payloads::ReadInfo(message.payload);
    if (!other || (other->boot == around.identity.boot && other->since == around.identity.since)) {
        return;
    }
    std::optional<Identity>& predecessor = around.memory.predecessor;
    if (message.isRetained && isFirst) {
        predecessor = other;
        return;
    }
    // A broker that has lost its memory may come back with what was there before us.
    const bool isPredecessor = predecessor && predecessor->boot == other->boot && predecessor->since == other->since;
    isConflict = isConflict || !message.isRetained || !isPredecessor;
}

void Session::TakeAlarm(const ReceivedMessage& message) {
    if (!message.isRetained || message.payload.empty() || greeting.size() >= longestGreeting) {
        return;
    }
    const std::vector<AlarmState> known = around.queue.Alarms();
    const bool isKnown = std::any_of(known.begin(), known.end(), [&](const AlarmState& alarm) {
        return topics.Alarm(alarm.name.first, alarm.name.second) == message.topic;
    });
    if (!isKnown) {
        greeting.push_back(Message::State(message.topic, ""));
    }
}

void Session::TakeHomeAutomation(const ReceivedMessage& message) {
    if (!message.isRetained && message.payload == "online") {
        repeatAt = Uptime() + companion::BackOff(repeatSpread, repeatSpread).Next();
    }
}

Session::Milliseconds Session::UntilNextDeed() const {
    const Milliseconds now = Uptime();
    if (inFlight) {
        return inFlight->isDone ? Milliseconds(0) : inFlight->sentAt + patience - now + Milliseconds(1);
    }
    Milliseconds rest = forEver;
    if (around.queue.Count() != around.memory.toldCounters) {
        rest = std::min(rest, around.memory.toldCountersAt + countersPause - now);
    }
    for (const std::optional<Milliseconds>& due : {repeatAt, pictureTurn.NextAt(), description.NextAt()}) {
        if (due) {
            rest = std::min(rest, *due - now);
        }
    }
    return rest;
}

}  // namespace kelto::halvek::mqtt
