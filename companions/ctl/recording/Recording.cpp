#include "companions/ctl/recording/Recording.h"

#include "companions/common/ReadToEnd.h"
#include "companions/common/UniqueFd.h"
#include "companions/ctl/Failure.h"
#include "kelto/core/StringUtil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace kelto::halvek::ctl {

namespace {

constexpr size_t mostBytes = size_t{2048} << 20U;
/** Sources of one input fire one after the other, within this time. */
constexpr int64_t togetherMs = 500;
/** What the daemon adds to an event by itself. */
constexpr std::array ownKeys = {"FormattedTime", "Timestamp", "eventType", "eventId"};

std::string ReadFile(const std::string& path) {
    const companion::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        throw Failure("cannot read " + path + ": " + std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw Failure("cannot read " + path + ": it is no file");
    }
    std::string text;
    if (const int error = companion::ReadToEnd(file.Get(), text, mostBytes); error != 0) {
        throw Failure("cannot read " + path + ": " + std::strerror(error));
    }
    return text;
}

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
    const std::string text = (access(older.c_str(), F_OK) == 0 ? ReadFile(older) : "") + ReadFile(path);
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
