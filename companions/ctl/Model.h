#pragma once

#include "companions/ctl/Store.h"
#include "event/Event.h"
#include "kelto/core/IniFile.h"
#include "kelto/core/LogLevel.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** A record that the daemon writes when it loads the settings, without its time. */
struct ModelRecord {
    core::LogLevel level;
    std::string logger;
    std::string text;
    /** The source, handler or server that was being loaded; empty outside of that. */
    std::string group;
};

/** A source, or a group that the daemon makes none of. */
struct ModelSource {
    /** The id: the group, or "Applications/halvek/MsgBus" for the one that is always there. */
    std::string group;
    std::string type;
    core::IniFile::Group settings;
    /** Of a group without a source: whether its type stands for posted events, so that nothing is wrong with that. */
    bool isPosted = false;
    /** Whether it asks the camera for its bank when it is loaded. Nobody was asked: a bank is taken to be there. */
    bool asksBus = false;
};

/** A handler group, and what has become of it. */
struct ModelHandler {
    std::string group;
    /** Empty without one. */
    std::string type;
    /** What it is configured from, its type's group and the common one as the daemon merges them. */
    core::IniFile::Group settings;
    /** The ids of the sources that it wants, by their keys. */
    core::IniFile::Group sourceIds;
    /** Whether the daemon has made and configured it, so that it may be attached to sources. */
    bool isLoaded = false;
    /** Whether it considers itself configured: if not, each event fails for it and for all behind it. */
    bool isConfigured = false;
    /** As that of a source. */
    bool asksBus = false;
};

/** A handler on a source's list. */
struct ModelEdge {
    std::string source;
    /** The handler's group, or the type of an always-on one. */
    std::string handler;
    /** The posted type, or the region, that the handler listens to; empty for all events of the source. */
    std::string eventId;
    /** With an event id: those of the handler's source ids that stand for it. */
    std::vector<std::string> postedIds = {};
    /** Its place in the order in which the source delivers, from 1. On the event server the handlers of all events come
     * first, and each event id counts on from them. */
    int32_t order = 0;
};

/** Why a handler does not act on an event, or that it does. */
enum class Verdict : int32_t {
    Acts,
    /** It is attached to nothing. */
    NotWired,
    OutOfDay,
    OutOfTime,
    /** It acts, but only because the daemon could not read one of its ranges. */
    UnreadableRange,
    NotConfigured,
    /** A handler before it is not configured, which costs those behind the event. */
    BehindFailing,
    /** The daemon does without it. */
    LeftOut,
    /** It listens to other events. */
    OtherType,
    /** It listens to this event, but nobody can post one: there is no event server. */
    NoEventPipe,
};

/** "out-of-day" and the like, as scripts read it. */
const char* VerdictName(Verdict verdict);

constexpr bool Acts(Verdict verdict) {
    return verdict == Verdict::Acts || verdict == Verdict::UnreadableRange;
}

struct ModelVerdict {
    /** The handler's group, or the type of an always-on one. */
    std::string handler;
    Verdict verdict;
    /** The source that delivers, or that would; empty if there is none. */
    std::string source;
    /** BehindFailing: the group of the handler that fails. */
    std::string because;
    /** How often it acts: once for each time that it stands on the list of a source that delivers. */
    int32_t times = 0;
};

/** What happens on one event. */
struct EventQuestion {
    /** Where the event comes from. */
    enum class Origin : int32_t {
        /** What its type and properties suggest, see IsBuiltIn. */
        Suggested,
        /** Somebody has posted it, whatever its type. */
        Posted,
        /** One of the daemon's sources has made it. */
        BuiltIn,
    };

    /** The event's "eventType". "Alarm" with an "alarmIndex" is an input of the camera's, without it a posted event. */
    std::string type;
    Event::Properties properties;
    /** Seconds of UTC since 1970. */
    int64_t time = 0;
    Origin origin = Origin::Suggested;
};

/** Whether the daemon fires the event of its own accord, so that nobody needs to post it. */
bool IsBuiltIn(const EventQuestion& question);

struct EventAnswer {
    /** Each handler group once, in the order of delivery; those that the event does not reach stand last. */
    std::vector<ModelVerdict> handlers;
    /** The always-on handlers, likewise. */
    std::vector<ModelVerdict> alwaysOn;
};

/** When handlers are open. Times are seconds of UTC since 1970; the filters are asked every 60 s from the first on. */
struct ScheduleQuestion {
    int64_t from = 0;
    /** Not in it any more. */
    int64_t to = 0;
    /** How many openings to look for, from `openingsFrom` on. */
    int32_t openings = 0;
    int64_t openingsFrom = 0;
};

struct OpenSpan {
    int64_t from;
    /** Not in it any more. */
    int64_t to;
};

struct HandlerSchedule {
    std::string handler;
    /** Within the time that was asked for. */
    std::vector<OpenSpan> open;
    /** The spans that begin at openingsFrom or later; fewer than asked for if there are none for weeks. */
    std::vector<OpenSpan> next;
    /** Whether there are minutes at which a range that the daemon cannot read lets everything through. */
    bool hasUnreadableRange = false;
};

/** All that is to be found out of one store in one go. */
struct ModelQuestions {
    std::vector<EventQuestion> events;
    std::vector<ScheduleQuestion> schedules;
    /** The handler groups whose schedules are wanted; all if empty. */
    std::vector<std::string> scheduleOf;
};

struct ModelAnswers {
    /** In the order of their ids, which is that of starting. */
    std::vector<ModelSource> sources;
    /** The source groups that the daemon has no source of, in the order of their names. */
    std::vector<ModelSource> absentSources;
    /** Each handler group once, in the order in which the daemon loads them. */
    std::vector<ModelHandler> handlers;
    /** By source, in the order of delivery. */
    std::vector<ModelEdge> edges;
    /** Of the load, Warnings and Errors only. */
    std::vector<ModelRecord> records;

    /** One for each question. */
    std::vector<EventAnswer> events;
    /** One for each question, in it one for each handler group that is wanted and there, left out or not. */
    std::vector<std::vector<HandlerSchedule>> schedules;

    const ModelSource* FindSource(const std::string& group) const;
    const ModelHandler* FindHandler(const std::string& group) const;
};

/**
 * Has the daemon's own objects load a store, in a child process, and tells what they made of it.
 *
 * Loading, wiring, filters and delivery are the daemon's; only the actions, the clock, the making of the event pipe and
 * the camera's services are stood in for. The child makes no file, pipe, program or connection, and has 5 s of
 * processor time. The store must be the one that the environment's KELTO_SETTINGS names.
 *
 * @throws Failure if the daemon would refuse the store, and if the child crashes or does not end, with its last record
 */
ModelAnswers AskModel(const ModelQuestions& questions = {});

}  // namespace kelto::halvek::ctl
