#include "companions/page/Orders.h"

#include "companions/common/PostRefusal.h"
#include "companions/common/PostedEvent.h"
#include "companions/page/BodyReader.h"
#include "companions/page/CameraBus.h"

#include <algorithm>
#include <utility>

namespace kelto::page {

namespace {

using companion::EventPipe;

constexpr int done = 204;
constexpr int refused = 400;
constexpr int away = 502;
// As an order that has not come from an alarm.
constexpr int32_t level = 900;
constexpr double fullSpeed = 1;

constexpr const char* before[] = {"source", "class", "analyticsType", "ruleName", "ruleDescription"};
constexpr const char* after[] = {"mediaType", "mediaUrl"};

CameraBus::Callback AnswerTo(const HttpExchangePtr& exchange) {
    return [exchange](const CameraBus::Result& result) {
        switch (result.outcome) {
            case CameraBus::Result::Outcome::Done:
                exchange->Answer(HttpAnswer::Of(done));
                break;
            case CameraBus::Result::Outcome::Refused:
                exchange->Answer(HttpAnswer::Of(refused, result.text));
                break;
            case CameraBus::Result::Outcome::Away:
                exchange->Answer(HttpAnswer::Of(away, result.text));
                break;
        }
    };
}

int AppendPoints(sd_bus_message* call, const BodyReader::Points& points) {
    int result = sd_bus_message_open_container(call, 'a', "(dd)");
    for (const auto& [x, y] : points) {
        result = std::min(result, sd_bus_message_append(call, "(dd)", x, y));
    }
    return std::min(result, sd_bus_message_close_container(call));
}

}  // namespace

void Orders::CarryOut(const HttpExchangePtr& exchange) {
    static const std::pair<const char*, void (Orders::*)(const HttpExchangePtr&, BodyReader&)> orders[] = {
        {"/alarm", &Orders::SetAlarm},   {"/head", &Orders::MoveHead},  {"/recording", &Orders::SetRecording},
        {"/alert", &Orders::RaiseAlert}, {"/fault", &Orders::SetFault}, {"/post", &Orders::Post}};
    try {
        BodyReader body(exchange->GetRequest().body);
        for (const auto& [path, order] : orders) {
            if (exchange->GetRequest().path == path) {
                (this->*order)(exchange, body);
            }
        }
    } catch (const BodyError& error) {
        exchange->Answer(HttpAnswer::Of(refused, error.what()));
    }
}

void Orders::SetAlarm(const HttpExchangePtr& exchange, BodyReader& body) {
    const std::string bank = body.TakeText("bank");
    const int32_t index = body.TakeInt("index");
    const bool active = body.TakeBool("active");
    body.ExpectNoMore();
    camera.Call(
        "VirtualCamera", "SetAlarm",
        [&](sd_bus_message* call) {
            return sd_bus_message_append(call, "sib", bank.c_str(), index, static_cast<int>(active));
        },
        AnswerTo(exchange));
}

void Orders::MoveHead(const HttpExchangePtr& exchange, BodyReader& body) {
    const bool isTour = body.Has("tour");
    const std::string id = body.TakeId(isTour ? "tour" : "preset");
    body.ExpectNoMore();
    if (isTour) {
        const auto arguments = [&](sd_bus_message* call) {
            return sd_bus_message_append(call, "si", id.c_str(), level);
        };
        camera.Call("Tour", "Start", arguments, AnswerTo(exchange));
    } else {
        const auto arguments = [&](sd_bus_message* call) {
            return sd_bus_message_append(call, "sdi", id.c_str(), fullSpeed, level);
        };
        camera.Call("PresetsV2", "GoTo", arguments, AnswerTo(exchange));
    }
}

void Orders::SetRecording(const HttpExchangePtr& exchange, BodyReader& body) {
    const bool a = body.TakeBool("a");
    const bool b = body.TakeBool("b");
    body.ExpectNoMore();
    camera.Call(
        "VirtualCamera", "SetRecording",
        [&](sd_bus_message* call) {
            return sd_bus_message_append(call, "bb", static_cast<int>(a), static_cast<int>(b));
        },
        AnswerTo(exchange));
}

void Orders::RaiseAlert(const HttpExchangePtr& exchange, BodyReader& body) {
    std::vector<std::string> texts;
    for (const char* const name : before) {
        texts.push_back(body.TakeTextIfThere(name));
    }
    const BodyReader::Points rulePoints = body.TakePointsIfThere("rulePoints");
    const BodyReader::Points boxPoints = body.TakePointsIfThere("boxPoints");
    std::vector<std::string> media;
    for (const char* const name : after) {
        media.push_back(body.TakeTextIfThere(name));
    }
    body.ExpectNoMore();
    const auto arguments = [&](sd_bus_message* call) {
        int result = 0;
        const auto append = [&](const std::string& text) {
            result = std::min(result, sd_bus_message_append(call, "s", text.c_str()));
        };
        std::ranges::for_each(texts, append);
        result = std::min({result, AppendPoints(call, rulePoints), AppendPoints(call, boxPoints)});
        std::ranges::for_each(media, append);
        return result;
    };
    camera.Call("VirtualCamera", "RaiseAlert", arguments, AnswerTo(exchange));
}

void Orders::SetFault(const HttpExchangePtr& exchange, BodyReader& body) {
    const std::string provider = body.TakeText("provider");
    const std::string kind = body.TakeText("kind");
    body.ExpectNoMore();
    camera.Call(
        "VirtualCamera", "SetFault",
        [&](sd_bus_message* call) { return sd_bus_message_append(call, "ss", provider.c_str(), kind.c_str()); },
        AnswerTo(exchange));
}

void Orders::Post(const HttpExchangePtr& exchange, BodyReader& body) {
    const std::string type = body.TakeText("type");
    const BodyReader::Texts properties = body.TakeTextsIfThere("props");
    body.ExpectNoMore();
    try {
        companion::PostedEvent event(type);
        for (const auto& [key, value] : properties) {
            event.Set(key, value);
        }
        const bool isPosted = pipe.Post(event) == EventPipe::Outcome::Posted;
        exchange->Answer(isPosted ? HttpAnswer::Of(done) : HttpAnswer::Of(away, pipe.Text()));
    } catch (const companion::PostRefusal& refusal) {
        exchange->Answer(HttpAnswer::Of(refused, refusal.what()));
    }
}

}  // namespace kelto::page
