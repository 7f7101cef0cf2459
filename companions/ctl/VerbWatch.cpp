#include "companions/ctl/VerbWatch.h"

#include "companions/ctl/EventLine.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/OptionReader.h"
#include "companions/ctl/Outflow.h"
#include "companions/ctl/Terminal.h"
#include "companions/ctl/listen/EventRelay.h"
#include "companions/ctl/listen/StalePipes.h"

#include <limits>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* help =
    "Shows every event of the running daemon as it comes, one per line, until it is interrupted.\n"
    "  --type TYPE  events of that type only\n"
    "  --count N    end after N events\n"
    "  --raw        blocks as the daemon writes them, but for control characters\n"
    "Times are UTC, and those at which the event was read. In JSON each line is an object: seq, time, clock, type,\n"
    "props, stale. A terminal or a reader that takes nothing costs the daemon nothing: what finds no room is dropped,\n"
    "and a line in its place tells how many that were; in JSON {\"dropped\":N}.\n"
    "Status: 0 after N events, 3 if there can be no pipe in /run/halvek: root and the group halvek-listen may.\n";

constexpr const char* purpose = "watch";

EventLine::Look ParseLook(const Invocation& invocation, const OptionReader& options) {
    const bool isJson = invocation.format == Format::Json;
    if (options.Has("--raw") && isJson) {
        throw UsageError("--raw has a form of its own, so --format json makes no sense");
    }
    return options.Has("--raw") ? EventLine::Look::Raw : isJson ? EventLine::Look::Json : EventLine::Look::Text;
}

ExitStatus RunWatch(const Invocation& invocation, Answer& answer) {
    const OptionReader options(invocation.words, {{"--type", true}, {"--count", true}, {"--raw", false}});
    const int32_t count = options.Number("--count", 0, 1, std::numeric_limits<int32_t>::max());
    EventLine line(ParseLook(invocation, options), options.Value("--type"));
    if (!options.Words().empty()) {
        throw UsageError("watch takes no word " + options.Words().front());
    }
    // A reader that nobody can hear is not wanted among the daemon's.
    answer.Flush();
    StalePipes::Remove(purpose);
    EventRelay relay(
        {.pipeName = StalePipes::OwnName(purpose),
         .line = [&](const companion::ReceivedEvent& event, const ReadTime& time) { return line.Of(event, time); },
         .isMissed = [&](const companion::ReceivedEvent& event) { return line.Miss(event); },
         .droppedLine = [&](uint64_t dropped) { return line.Dropped(dropped); },
         .count = static_cast<uint64_t>(count)});
    Terminal::Complain("reading " + relay.PipePath());
    for (std::string_view text = relay.Read(); !text.empty(); text = relay.Read()) {
        Outflow::Write(text);
    }
    if (!relay.Finish() || count == 0) {
        throw Failure("the process that reads " + relay.PipePath() + " has ended");
    }
    return exitYes;
}

}  // namespace

const Verb verbWatch{"watch", "[--type TYPE] [--count N] [--raw]", "shows events as they come", help, RunWatch};

}  // namespace kelto::halvek::ctl
