#include "companions/ctl/recording/InputRecorder.h"

#include "companions/common/ClockState.h"
#include "companions/ctl/Terminal.h"

#include <cstdlib>
#include <system_error>

namespace kelto::halvek::ctl {

namespace {

using companion::ClockState;

/** A clock that is set by less is only put right. */
constexpr int64_t leastStepMs = 1000;

std::string BootIfKnown() {
    try {
        return ClockState::BootId();
    } catch (const std::system_error&) {
        return "";
    }
}

/** The daemon puts it into what others have posted. */
bool IsPosted(const companion::ReceivedEvent& event) {
    return event.Find("eventId") != nullptr;
}

}  // namespace

InputRecorder::InputRecorder() : boot(BootIfKnown()), clockOffset(ClockState::Now() - ClockState::SinceBoot()) {}

std::string InputRecorder::Of(const companion::ReceivedEvent& event, const ReadTime& time) {
    std::string lines = ClockChange(time);
    RecordedInput input = At(IsPosted(event) ? "posted" : "fired", time);
    input.type = event.type;
    for (const auto& [key, value] : event.properties) {
        input.properties[key] = Terminal::IsSecret(key) ? "***" : value;
    }
    return lines + input.Line();
}

std::string InputRecorder::Of(const CameraSignal& signal) {
    std::string lines = ClockChange(signal.time);
    RecordedInput input = At(signal.kind.c_str(), signal.time);
    input.type = signal.type;
    input.properties = signal.properties;
    input.state = signal.state;
    return lines + input.Line();
}

std::string InputRecorder::IdleState(int32_t state) {
    RecordedInput input = Now("idle");
    input.state = state;
    return input.Line();
}

std::string InputRecorder::Gap(uint64_t count) {
    RecordedInput gap = Now("gap");
    gap.amount = static_cast<int64_t>(count);
    return gap.Line();
}

std::string InputRecorder::Begin(bool hasBus) {
    RecordedInput begin = Now("begin");
    begin.hasBus = hasBus;
    return begin.Line();
}

std::string InputRecorder::End() {
    const ReadTime now{.milliseconds = ClockState::Now(), .sinceBoot = ClockState::SinceBoot()};
    std::string lines = ClockChange(now);
    return lines + At("end", now).Line();
}

RecordedInput InputRecorder::Now(const char* kind) {
    return At(kind, {.milliseconds = ClockState::Now(), .sinceBoot = ClockState::SinceBoot()});
}

RecordedInput InputRecorder::At(const char* kind, const ReadTime& time) {
    RecordedInput input;
    input.kind = kind;
    input.time = time.milliseconds;
    input.sinceBoot = time.sinceBoot;
    input.boot = boot;
    input.number = ++number;
    return input;
}

/** "clock", if the clock was set since the last line. */
std::string InputRecorder::ClockChange(const ReadTime& time) {
    const int64_t offset = time.milliseconds - time.sinceBoot;
    const int64_t step = offset - clockOffset;
    clockOffset = offset;
    if (std::abs(step) < leastStepMs) {
        return "";
    }
    RecordedInput change = At("clock", time);
    change.amount = step;
    return change.Line();
}

}  // namespace kelto::halvek::ctl
