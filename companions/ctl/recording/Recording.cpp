#include "companions/ctl/recording/Recording.h"

#include "companions/ctl/Failure.h"
#include "companions/ctl/PlainFile.h"
#include "kelto/core/StringUtil.h"

#include <algorithm>
#include <array>

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

void Take(RecordedInput input, Recording& recording) {
    const bool isAfterSet = input.kind == "begin" || input.kind == "clock" || recording.stretches.empty();
    if (isAfterSet) {
        recording.stretches.push_back({input.time, input.time});
    }
    recording.stretches.back().to = std::max(recording.stretches.back().to, input.time);
    if (input.kind == "gap") {
        recording.missing += input.amount;
    }
    const bool isEvent = input.kind == "posted" || (input.kind == "fired" && input.type != "Timer");
    for (const char* const key : ownKeys) {
        input.properties.erase(key);
    }
    if (isEvent && !input.type.empty() && !IsRepeated(recording.inputs, input)) {
        recording.inputs.push_back(std::move(input));
    }
}

}  // namespace

Recording Recording::Read(const std::string& path) {
    Recording recording;
    const std::string older = path + ".1";
    const std::string text =
        (access(older.c_str(), F_OK) == 0 ? ReadPlainFile(older, mostBytes) : "") + ReadPlainFile(path, mostBytes);
    for (const std::string& line : core::StringUtil::Split(text, '\n')) {
        if (std::optional<RecordedInput> input = RecordedInput::Parse(line)) {
            Take(std::move(*input), recording);
        } else {
            recording.unreadable += line.empty() ? 0 : 1;
        }
    }
    if (recording.stretches.empty()) {
        throw Failure(path + " is no recording");
    }
    return recording;
}

}  // namespace kelto::halvek::ctl
