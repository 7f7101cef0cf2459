#include "companions/page/Page.h"

#include "camera/runtime/EventLoop.h"
#include "companions/common/ClockState.h"
#include "companions/common/Json.h"
#include "companions/page/Options.h"
#include "companions/page/ReadState.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace kelto::page {

namespace {

using companion::ClockState;
using companion::Json;
using vcam::EventLoop;

constexpr size_t mostRecent = 100;
constexpr uint64_t stateInterval = 10'000;   // microseconds
constexpr uint64_t watchInterval = 250'000;  // between two looks at the picture

/** Greater than every id that an earlier life of this program has given, however fast it was. */
uint64_t FirstId() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec / 1'000) + 1;
}

/** A moment of the monotonic clock, in microseconds, by the clock as it is set now. */
std::string IsoTime(uint64_t moment) {
    const int64_t ago = static_cast<int64_t>(EventLoop::Now()) - static_cast<int64_t>(moment);
    return ClockState::IsoTime(ClockState::Now() - ago / 1'000);
}

void Keep(std::deque<std::string>& recent, const std::string& data) {
    if (recent.size() == mostRecent) {
        recent.pop_front();
    }
    recent.push_back(data);
}

/** A list whose items are JSON already. */
std::string ListOf(const std::deque<std::string>& items) {
    std::string list = "[";
    for (const std::string& item : items) {
        list += (list.size() == 1 ? "" : ",") + item;
    }
    return list + "]";
}

void WritePlaces(Json& json) {
    json.Key("presets").BeginArray();
    for (int64_t preset = 1; preset <= 10; ++preset) {
        json.BeginObject().Key("id").String(std::to_string(preset)).Key("position").Number(preset * 10).EndObject();
    }
    json.EndArray().Key("tours").BeginArray();
    for (const char* const tour : {"1", "2", "3"}) {
        json.String(tour);
    }
    json.EndArray();
}

}  // namespace

Page::Page(EventLoop& eventLoop, int socket, const Options& options, const std::string& token,
           std::function<void()> ready)
    : ring(FirstId()),
      gate(options.hosts, token),
      assets(token),
      picture(options.snapshot),
      stateTimer(eventLoop),
      watchTimer(eventLoop),
      camera(eventLoop,
             {.settled = std::move(ready),
              .camera = [this](bool isThere) { OnCamera(isThere); },
              .said = [this](uint64_t time, const std::string& line) { OnSaid(time, line); },
              .alarm = [this](const std::string& bank, int32_t index, bool active) { OnAlarm(bank, index, active); }}),
      follower(eventLoop, camera, [this](const auto& told, size_t leftOut) { OnActions(told, leftOut); }),
      feed(eventLoop, options.listenerPipe, [this](const companion::ReceivedEvent& event) { OnEvent(event); }),
      orders(camera, options.eventPipe),
      adviser(eventLoop, options),
      server(eventLoop, socket, ring, [this](const HttpExchangePtr& exchange) { Handle(exchange); }) {
    feed.OpenIfClosed();
}

void Page::Handle(const HttpExchangePtr& exchange) {
    const HttpRequest& request = exchange->GetRequest();
    if (const std::optional<HttpAnswer> refusal = gate.Refuse(request)) {
        exchange->Answer(*refusal);
    } else if (request.method == "POST") {
        orders.CarryOut(exchange);
    } else if (request.path == "/state") {
        HandleState(exchange);
    } else if (request.path == "/stream") {
        HandleStream(exchange);
    } else if (request.path == "/picture") {
        exchange->Answer(picture.Answer(request));
    } else if (request.path == "/wiring") {
        adviser.Draw(exchange);
    } else if (request.path == "/explain") {
        adviser.Explain(exchange);
    } else {
        exchange->Answer(assets.Answer(request));
    }
}

void Page::HandleState(const HttpExchangePtr& exchange) {
    waiting.push_back(exchange);
    // What is under way may be older than this request.
    AskForState();
    if (isAsking) {
        return;
    }
    stateTimer.Cancel();
    AskNow();
}

void Page::HandleStream(const HttpExchangePtr& exchange) {
    HttpAnswer answer;
    if (!server.HasRoomForStream()) {
        answer = HttpAnswer::Of(503, "Too many browsers look at this page");
        answer.headers.emplace_back("Retry-After", "10");
        exchange->Answer(answer);
        return;
    }
    feed.OpenIfClosed();
    answer.isStream = true;
    answer.contentType = "text/event-stream";
    exchange->Answer(answer);
    if (!watchTimer.IsStarted()) {
        // Not before the stream is one of those that are watched for.
        watchTimer.StartAt(EventLoop::Now(), [this] { Watch(); });
    }
    // Whoever is new hears how things stand.
    toldState.clear();
    AskForState();
    follower.Ask();
}

void Page::OnCamera(bool isThere) {
    view = {};
    view.isThere = isThere;
    if (isThere) {
        AskForState();
        follower.Ask();
    } else {
        TellState();
    }
}

void Page::OnSaid(uint64_t time, const std::string& line) {
    Json json;
    json.BeginObject().Key("time").String(IsoTime(time)).Key("text").String(line).EndObject();
    TellAndKeep("said", json.Text(), said);
    AskForState();
    if (server.HasStreams()) {
        follower.Ask();
    }
}

void Page::OnAlarm(const std::string& bank, int32_t index, bool active) {
    view.alarms[{bank, index}] = active;
    AskForState();
}

void Page::OnEvent(const companion::ReceivedEvent& event) {
    const std::string time = ClockState::IsoTime(ClockState::Now());
    adviser.Take(event, ++eventCount, time);
    Json json;
    json.BeginObject().Key("seq").Number(static_cast<int64_t>(eventCount)).Key("time").String(time);
    json.Key("clock").String(ClockState::Word());
    json.Key("type").String(event.type).Key("props").BeginObject();
    for (const auto& [key, value] : event.properties) {
        json.Key(key).String(value);
    }
    json.EndObject().Key("stale").Bool(event.isStale);
    for (const auto& [name, holds] :
         {std::pair("lossy", event.isLossy), {"cut", event.isCut}, {"unfinished", event.isUnfinished}}) {
        if (holds) {
            json.Key(name).Bool(true);
        }
    }
    json.EndObject();
    TellAndKeep("event", json.Text(), events);
    if (server.HasStreams()) {
        follower.Ask();
    }
}

void Page::OnActions(const std::vector<ActionFollower::Action>& told, size_t leftOut) {
    for (const ActionFollower::Action& action : told) {
        Json json;
        json.BeginObject().Key("time").String(IsoTime(action.time)).Key("method").String(action.method);
        json.Key("arguments").String(action.arguments);
        if (const size_t before = std::exchange(leftOut, 0); before > 0) {
            json.Key("leftOut").Number(static_cast<int64_t>(before));
        }
        TellAndKeep("action", json.EndObject().Text(), actions);
    }
}

void Page::AskForState() {
    if (isAsking) {
        isAskedAgain = true;
    } else if (!stateTimer.IsStarted()) {
        stateTimer.StartAt(std::max(earliest, EventLoop::Now()), [this] { AskNow(); });
    }
}

void Page::AskNow() {
    isAsking = true;
    isAskedAgain = false;
    earliest = EventLoop::Now() + stateInterval;
    served = std::exchange(waiting, {});
    camera.Call(
        "VirtualCamera", "GetState", [](sd_bus_message*) { return 0; },
        [this](const CameraBus::Result& result) { TakeState(result); });
}

void Page::TakeState(const CameraBus::Result& result) {
    isAsking = false;
    if (result.outcome == CameraBus::Result::Outcome::Done) {
        ReadState(result.message, view);
    }
    TellState();
    if (!served.empty()) {
        follower.AskAtOnce([this, exchanges = std::exchange(served, {})] { AnswerWithState(exchanges); });
    }
    if (!waiting.empty()) {
        AskNow();
    } else if (isAskedAgain) {
        AskForState();
    }
}

void Page::AnswerWithState(const std::vector<HttpExchangePtr>& exchanges) {
    HttpAnswer answer;
    answer.contentType = "application/json";
    answer.body = StateForOne();
    for (const HttpExchangePtr& exchange : exchanges) {
        exchange->Answer(answer);
    }
}

void Page::TellState() {
    std::string state = StateForAll();
    if (state != toldState) {
        toldState = std::move(state);
        Tell("state", toldState);
    }
}

std::string Page::StateForAll() const {
    Json json;
    json.BeginObject();
    view.Write(json);
    json.Key("events").Bool(feed.IsOpen()).EndObject();
    return json.Text();
}

std::string Page::StateForOne() const {
    Json json;
    json.BeginObject().Key("format").Number(1).Key("id").String(std::to_string(ring.LastId()));
    view.Write(json);
    WritePlaces(json);
    json.Key("picture").String(picture.Tag());
    json.Key("eventPipe").BeginObject().Key("open").Bool(feed.IsOpen()).Key("problem").String(feed.Problem());
    json.EndObject();
    // What these lists hold is JSON already.
    return json.Text() + R"(,"said":)" + ListOf(said) + R"(,"actions":)" + ListOf(actions) + R"(,"events":)" +
           ListOf(events) + "}";
}

void Page::Watch() {
    if (std::string tag = picture.Tag(); tag != pictureTag) {
        pictureTag = std::move(tag);
        Json json;
        Tell("picture", json.String(pictureTag).Text());
    }
    follower.Ask();
    if (server.HasStreams()) {
        watchTimer.StartAt(EventLoop::Now() + watchInterval, [this] { Watch(); });
    }
}

void Page::Tell(const std::string& name, const std::string& data) {
    ring.Add(name, data);
    server.WakeStreams();
}

void Page::TellAndKeep(const std::string& name, const std::string& data, Recent& recent) {
    Keep(recent, data);
    Tell(name, data);
}

}  // namespace kelto::page
