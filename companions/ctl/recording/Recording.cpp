#include "companions/ctl/recording/Recording.h"

#include "companions/ctl/Failure.h"
#include "companions/ctl/PlainFile.h"
#include "kelto/core/StringUtil.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <limits>

namespace kelto::halvek::ctl {

namespace {

constexpr size_t mostBytes = size_t{2048} << 20U;
/** Sources of one input fire one after the other, within this time. */
constexpr int64_t togetherMs = 500;
/** What the daemon adds to an event by itself. */
constexpr std::array ownKeys = {"FormattedTime", "Timestamp", "eventType", "eventId"};

/** An alarm that two sources were set up for comes twice. */
bool IsRepeated(const std::vector<RecordedInput>& inputs, const RecordedInput& input) {
    if (input.kind != "fired") {
        return false;
    }
    for (auto one = inputs.rbegin(); one != inputs.rend() && input.time - one->time < togetherMs; ++one) {
        if (one->kind == input.kind && one->type == input.type && one->properties == input.properties) {
            return true;
        }
    }
    return false;
}

/** The time that the clock would have shown had it not been set. When it was set is known to the next line only. */
void TakeTime(const RecordedInput& input, std::vector<Recording::Stretch>& stretches) {
    const bool isFirst = stretches.empty();
    if (!isFirst && input.kind == "clock") {
        Recording::Stretch& before = stretches.back();
        before.to = std::max(before.to, before.from + input.sinceBoot - before.begin);
    }
    if (isFirst || input.kind == "begin" || input.kind == "clock") {
        stretches.push_back({input.time, input.time, input.sinceBoot});
    }
    stretches.back().to = std::max(stretches.back().to, input.time);
}

/** Each time that the head comes to rest begins to count anew. */
void TakeIdleState(const RecordedInput& input, std::vector<Recording::Rest>& rests) {
    if (!rests.empty()) {
        rests.back().to = std::min(rests.back().to, input.sinceBoot);
    }
    if (input.state == 0) {
        rests.push_back({input.sinceBoot, std::numeric_limits<int64_t>::max()});
    }
}

bool IsEvent(const RecordedInput& input, const Recording& recording) {
    if (input.kind == "posted" || input.kind == "alarm" || input.kind == "alert") {
        return true;
    }
    // With the bus they are there to compare with.
    return input.kind == "fired" && !recording.hasBus && input.type != "Timer" && !IsRepeated(recording.inputs, input);
}

/** The first line may be gone, written over by later ones. */
bool TellsOfBus(const RecordedInput& input) {
    return input.hasBus || input.kind == "alarm" || input.kind == "alert" || input.kind == "idle";
}

void Take(RecordedInput input, Recording& recording) {
    TakeTime(input, recording.stretches);
    if (input.kind == "gap") {
        recording.missing += input.amount;
    }
    if (input.kind == "idle") {
        TakeIdleState(input, recording.rests);
    }
    for (const char* const key : ownKeys) {
        input.properties.erase(key);
    }
    if (!input.type.empty() && IsEvent(input, recording)) {
        recording.inputs.push_back(std::move(input));
    }
}

}  // namespace

Recording Recording::Read(const std::string& path) {
    Recording recording;
    const std::string older = path + ".1";
    const std::string text =
        (access(older.c_str(), F_OK) == 0 ? ReadPlainFile(older, mostBytes) : "") + ReadPlainFile(path, mostBytes);
    std::vector<RecordedInput> inputs;
    for (const std::string& line : core::StringUtil::Split(text, '\n')) {
        if (std::optional<RecordedInput> input = RecordedInput::Parse(line)) {
            inputs.push_back(std::move(*input));
        } else {
            recording.unreadable += line.empty() ? 0 : 1;
        }
    }
    recording.hasBus = std::any_of(inputs.begin(), inputs.end(), TellsOfBus);
    for (RecordedInput& input : inputs) {
        Take(std::move(input), recording);
    }
    if (recording.stretches.empty()) {
        throw Failure(path + " is no recording");
    }
    return recording;
}

}  // namespace kelto::halvek::ctl
