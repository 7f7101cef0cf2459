#include "companions/ctl/VerbPost.h"

#include "companions/common/EventPipe.h"
#include "companions/common/PostRefusal.h"
#include "companions/common/PostedEvent.h"
#include "companions/common/ReadToEnd.h"
#include "companions/ctl/EventPipeSetting.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/JsonAnswer.h"
#include "companions/ctl/OptionReader.h"

#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

namespace kelto::halvek::ctl {

namespace {

using companion::EventPipe;
using companion::PostedEvent;

constexpr const char* help =
    "Posts an event of a type, with its properties, to the running daemon: all of it or nothing, and at once.\n"
    "\"-\" takes blocks from standard input instead, as halvek-events(5) has them. The first is posted when all have\n"
    "been read and none is wrong.\n"
    "  --wait [SEC]  wait so long (30) until there is a daemon, and room in its pipe\n"
    "  --pipe PATH   the event pipe, if not that of the settings\n"
    "A type has no \"]\", a key begins with a letter or digit, and there are no line breaks. A block has at most 4096\n"
    "bytes.\n"
    "Status: 0 if it was posted, 2 if the event is wrong, 3 if nobody reads the pipe, or it is full or not there.\n";

constexpr const char* fromInput = "-";
constexpr size_t mostInput = size_t{1} << 20U;
constexpr int32_t defaultWaitSec = 30;
constexpr int32_t longestWaitSec = 86'400;
constexpr std::chrono::milliseconds betweenAttempts{20};

using Clock = std::chrono::steady_clock;

std::string ReadInput() {
    std::string text;
    if (const int error = companion::ReadToEnd(STDIN_FILENO, text, mostInput); error != 0) {
        throw Failure(std::string("cannot read standard input: ") + std::strerror(error));
    }
    return text;
}

std::vector<PostedEvent> EventsOf(const std::vector<std::string>& words) {
    if (words == std::vector<std::string>{fromInput}) {
        std::vector<PostedEvent> events = PostedEvent::ParseAll(ReadInput());
        if (events.empty()) {
            throw UsageError("there is no event on standard input");
        }
        return events;
    }
    if (words.empty()) {
        throw UsageError("the event's type is missing");
    }
    PostedEvent event(words.front());
    for (auto word = std::next(words.begin()); word != words.end(); ++word) {
        event.SetByWord(*word);
    }
    return {event};
}

/** All of them, before the first is posted. */
std::vector<std::string> BlocksOf(const std::vector<std::string>& words) {
    try {
        std::vector<std::string> blocks;
        for (const PostedEvent& event : EventsOf(words)) {
            blocks.push_back(event.Block());
        }
        return blocks;
    } catch (const companion::PostRefusal& refusal) {
        throw UsageError(refusal.what());
    }
}

bool MayPass(EventPipe::Outcome outcome) {
    return outcome == EventPipe::Outcome::NoFifo || outcome == EventPipe::Outcome::NobodyReads ||
           outcome == EventPipe::Outcome::Full;
}

bool PostUntil(EventPipe& pipe, const std::string& block, Clock::time_point deadline) {
    EventPipe::Outcome outcome = pipe.PostBlock(block);
    while (MayPass(outcome) && Clock::now() < deadline) {
        std::this_thread::sleep_for(betweenAttempts);
        outcome = pipe.PostBlock(block);
    }
    return outcome == EventPipe::Outcome::Posted;
}

void PostAll(EventPipe& pipe, const std::vector<std::string>& blocks, int32_t waitSec) {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(waitSec);
    for (size_t posted = 0; posted < blocks.size(); ++posted) {
        if (!PostUntil(pipe, blocks[posted], deadline)) {
            throw Failure(pipe.Text() + (posted == 0 ? ""
                                                     : "; " + std::to_string(posted) + " of " +
                                                           std::to_string(blocks.size()) + " were posted"));
        }
    }
}

ExitStatus RunPost(const Invocation& invocation, Answer& answer) {
    const OptionReader options(
        invocation.words,
        {{.name = "--wait", .takesValue = true, .absent = std::to_string(defaultWaitSec)}, {"--pipe", true}});
    const int32_t waitSec = options.Number("--wait", 0, 0, longestWaitSec);
    const std::vector<std::string> blocks = BlocksOf(options.Words());
    const StoreLocation location = StoreLocation::Use(invocation);
    const std::optional<std::string> path = options.Value("--pipe");
    EventPipe pipe(path ? *path : EventPipeSetting::Find(invocation, location));
    // What has been posted cannot be taken back, so an answer that nobody can get comes first.
    answer.Flush();
    PostAll(pipe, blocks, waitSec);
    if (invocation.format == Format::Json) {
        companion::Json json;
        JsonAnswer::Begin(json, "post", location);
        json.Key("pipe").String(pipe.Path());
        json.Key("posted").Number(static_cast<int64_t>(blocks.size()));
        answer.AddLine(json.EndObject().Text());
    }
    return exitYes;
}

}  // namespace

const Verb verbPost{"post", "TYPE [KEY=VALUE...] | -", "hands an event to the running daemon", help, RunPost};

}  // namespace kelto::halvek::ctl
