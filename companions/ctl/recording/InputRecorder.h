#pragma once

#include "companions/common/ReceivedEvent.h"
#include "companions/ctl/listen/ReadTime.h"
#include "companions/ctl/recording/CameraSignal.h"
#include "companions/ctl/recording/RecordedInput.h"

#include <cstdint>
#include <string>

namespace kelto::halvek::ctl {

/** Makes lines of a recording of events. One thread at a time. */
class InputRecorder {
public:
    InputRecorder();

    /** The line of an event, behind one that tells of a clock that was set since the one before. */
    std::string Of(const companion::ReceivedEvent& event, const ReadTime& time);

    /** The line of a signal, likewise. */
    std::string Of(const CameraSignal& signal);

    /** The line of whether the head rests, as it was asked for. */
    std::string IdleState(int32_t state);

    /** "gap", in the place of so many events. */
    std::string Gap(uint64_t count);

    /** The first line. @param hasBus whether signals of the bus are recorded too */
    std::string Begin(bool hasBus);

    /** The last line. */
    std::string End();

    /** So many lines were made by another process that goes on with this one's numbers. */
    void CountOthers(uint64_t lines) { number += lines; }

private:
    RecordedInput Now(const char* kind);
    RecordedInput At(const char* kind, const ReadTime& time);
    std::string ClockChange(const ReadTime& time);

    // Constant after construction.
    std::string boot;

    uint64_t number = 0;
    /** What the clock says beyond the time since the boot. */
    int64_t clockOffset;
};

}  // namespace kelto::halvek::ctl
