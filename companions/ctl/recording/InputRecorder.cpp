#include "companions/ctl/recording/InputRecorder.h"

#include "companions/common/ClockState.h"
#include "companions/ctl/Terminal.h"

#include <cstdlib>
#include <ctime>
#include <system_error>

namespace kelto::halvek::ctl {

namespace {

using companion::ClockState;

/** A clock that is set by less is only put right. */
constexpr int64_t leastStepMs = 1000;

int64_t SinceBoot() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

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

InputRecorder::InputRecorder() : boot(BootIfKnown()), clockOffset(ClockState::Now() - SinceBoot()) {}

std::string InputRecorder::Of(const companion::ReceivedEvent& event, const ReadTime& time) {
    std::string lines = ClockChange(time.milliseconds);
    RecordedInput input = Now(IsPosted(event) ? "posted" : "fired");
    input.time = time.milliseconds;
    input.type = event.type;
    for (const auto& [key, value] : event.properties) {
        input.properties[key] = Terminal::IsSecret(key) ? "***" : value;
    }
    return lines + input.Line();
}

std::string InputRecorder::Gap(uint64_t count) {
    RecordedInput gap = Now("gap");
    gap.amount = static_cast<int64_t>(count);
    return gap.Line();
}

std::string InputRecorder::Mark(const char* kind) {
    return Now(kind).Line();
}

RecordedInput InputRecorder::Now(const char* kind) {
    RecordedInput input;
    input.kind = kind;
    input.time = ClockState::Now();
    input.sinceBoot = SinceBoot();
    input.boot = boot;
    input.number = ++number;
    return input;
}

std::string InputRecorder::ClockChange(int64_t time) {
    const int64_t offset = ClockState::Now() - SinceBoot();
    const int64_t step = offset - clockOffset;
    clockOffset = offset;
    if (std::abs(step) < leastStepMs) {
        return "";
    }
    RecordedInput change = Now("clock");
    change.time = time;
    change.amount = step;
    return change.Line();
}

}  // namespace kelto::halvek::ctl
