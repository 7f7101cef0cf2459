#include "companions/ctl/model/OneAction.h"

#include "companions/ctl/Failure.h"
#include "companions/ctl/model/ChildProcess.h"
#include "companions/ctl/model/RecordFile.h"
#include "env/HalvekEnv.h"
#include "env/HandlerRegistry.h"
#include "event/AlarmEvent.h"
#include "event/MotionEvent.h"
#include "handler/EventHandler.h"
#include "kelto/core/Logger.h"

#include <chrono>
#include <ctime>
#include <map>
#include <memory>

namespace kelto::halvek::ctl {

namespace {

/** ftpput and esmtp have no time-out of their own. */
constexpr ChildProcess::Limits limits{.processorSeconds = 60, .waitMs = 300'000};

/** As its source would have made it; an alarm is more urgent than all others. */
std::unique_ptr<Event> MakeEvent(const EventQuestion& question) {
    Event::Properties properties = question.properties;
    properties["eventType"] = question.type;
    if (question.type == "Alarm" && IsBuiltIn(question)) {
        return std::make_unique<event::AlarmEvent>(properties);
    }
    if (!IsBuiltIn(question)) {
        const auto region = properties.find("region");
        properties["eventId"] =
            question.type == "MotionDetection" && region != properties.end() ? region->second : question.type;
    }
    return std::make_unique<event::MotionEvent>(properties);
}

void SetLevel(core::LogLevel level) {
    core::Logger::SetLevels({.general = level, .byLogger = {}});
}

std::string Act(const ModelHandler& handler, const EventQuestion& question) {
    // What it is configured from is dumped at Information, passwords included.
    SetLevel(core::LogLevel::Warning);
    HalvekEnv env;
    const std::unique_ptr<EventHandler> made = HandlerRegistry::Instance().CreateHandlerByName(handler.type, &env);
    if (made == nullptr) {
        throw Failure("there are no handlers of type " + handler.type);
    }
    made->Configure(handler.settings);
    if (!made->IsConfigured()) {
        throw Failure("the handler is not configured");
    }
    SetLevel(core::LogLevel::Information);
    const std::unique_ptr<Event> event = MakeEvent(question);
    event->StampTime();
    const off_t begin = RecordFile::End();
    const auto started = std::chrono::steady_clock::now();
    made->PerformAction(*event);
    const auto taken = std::chrono::steady_clock::now() - started;
    const std::string records = RecordFile::ReadFrom(begin);
    const bool wentWell = RecordFile::Parse(records, "", {}).empty();
    return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(taken).count()) +
           (wentWell ? "\n+\n" : "\n-\n") + records;
}

}  // namespace

ActionResult ActOnce(const ModelHandler& handler, const EventQuestion& question,
                     const std::function<void()>& surroundings) {
    const std::string answer = ChildProcess::Run(
        [&] {
            surroundings();
            return Act(handler, question);
        },
        limits);
    const size_t numberEnd = answer.find('\n');
    ActionResult result;
    result.milliseconds = std::stoll(answer.substr(0, numberEnd));
    result.wentWell = answer[numberEnd + 1] == '+';
    result.records = answer.substr(numberEnd + 3);
    return result;
}

}  // namespace kelto::halvek::ctl
