#pragma once

#include "companions/ctl/Finding.h"
#include "companions/ctl/Model.h"
#include "companions/ctl/PostingRules.h"

#include <deque>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** A finding, as far as it is to be seen in a picture. */
struct WiringMark {
    std::string group;
    /** "HK3004". */
    std::string id;
    /** "error", "warning" or "note". */
    std::string severity;
    std::string text;
};

/** Where events come from. Texts are as they are in the settings, unescaped. */
struct WiringSource {
    std::string group;
    std::string type;
    /** "every 5 s". */
    std::string detail;
    bool isPosted = false;
    bool isLeftOut = false;
    /** What the daemon says of it; of one that is left out. */
    std::string remark;
};

/** What acts on them, and on what. */
struct WiringHandler {
    std::string group;
    std::string type;
    std::string target;
    /** "EnabledTimes=800-1700"; empty for one that always acts. */
    std::string filter;
    bool isLeftOut = false;
    bool isConfigured = false;
    std::string remark;
    /** Open in the week that was asked for. */
    std::vector<OpenSpan> open;
};

/** An arrow from a source to a handler. */
struct WiringEdge {
    std::string from;
    std::string to;
    /** The place in which the source delivers, from 1; 0 for an id of the settings that leads nowhere. */
    int32_t order = 0;
};

/** A rule of halvek-rules: it posts an event at others. */
struct WiringRule {
    std::string name;
    /** "each", "count", "then" or "unless". */
    std::string kind;
    /** The types of the events that it looks at; the second is that of Then and Unless, else empty. */
    std::string when;
    std::string second;
    std::string post;
    Position place;
    /** The groups of the sources that it hears, and of those that its events come out of. */
    std::vector<std::string> from = {};
    std::vector<std::string> to = {};
    /** The rules whose events it hears. */
    std::vector<std::string> fromRules = {};

    /** "Alarm => DoorOpened". */
    std::string Text() const;
};

/** Sources, handlers and what leads from the ones to the others, for all the ways to show it. */
struct Wiring {
    std::vector<WiringSource> sources;
    std::vector<WiringHandler> handlers;
    std::vector<WiringEdge> edges;
    /** The types of the handlers that get every event behind all others. */
    std::vector<std::string> alwaysOn;
    std::vector<WiringMark> marks;
    std::vector<WiringRule> rules;

    /** @param model with one schedule of all handlers */
    static Wiring Of(const ModelAnswers& model);

    /** Draws in what leads from events to others. */
    void AddRules(const PostingRules& postingRules);

    /** Marks the groups that the findings are about. */
    void Mark(const std::deque<Finding>& findings);

    /** Leaves what has to do with one source or handler. Throws UsageError if there is none of that name. */
    void KeepOnly(const std::string& group);

    std::vector<const WiringEdge*> EdgesFrom(const std::string& source) const;
    std::vector<const WiringMark*> MarksOf(const std::string& group) const;
    /** The gravest severity that a group is marked with; empty without marks. */
    std::string SeverityOf(const std::string& group) const;
};

}  // namespace kelto::halvek::ctl
