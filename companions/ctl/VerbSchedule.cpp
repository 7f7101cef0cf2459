#include "companions/ctl/VerbSchedule.h"

#include "companions/ctl/Calendar.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/HandlerName.h"
#include "companions/ctl/JsonAnswer.h"
#include "companions/ctl/OptionReader.h"
#include "companions/ctl/ScheduleDrawing.h"
#include "companions/ctl/Terminal.h"
#include "handler/FilterChain.h"

#include <algorithm>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* help =
    "For each handler, or those that are named: a strip of 48 half hours a day, \"#\" open, \".\" closed, \"+\"\n"
    "partly; the next openings; and the day that a camera lives through before its clock is set.\n"
    "  --from DAY   the first day, 2026-11-23 for instance (today)\n"
    "  --days N     how many days (7)\n"
    "  --next N     how many openings to look for (5)\n"
    "  --dst        also the days of the year on which the clocks change\n"
    "  --svg        a drawing instead of text\n"
    "Status: 0.\n";

/** Of "+01:00>+02:00". */
constexpr size_t offsetWidth = 13;
constexpr const char* hours = "0   2   4   6   8   10  12  14  16  18  20  22";
constexpr int mostDays = 366;
constexpr int mostOpenings = 1000;

/** The time that an answer is about. */
struct Span {
    std::vector<LocalDay> days;
    std::vector<LocalDay> changes;
    LocalDay before = Calendar::FirstOf1970();
    int64_t openingsFrom = 0;
    int32_t openings = 0;

    std::vector<ScheduleQuestion> Questions() const {
        std::vector<ScheduleQuestion> questions = {
            {days.front().From(), days.back().To(), openings, openingsFrom},
            {before.From(), before.To(), 0, 0},
        };
        for (const LocalDay& day : changes) {
            questions.push_back({day.From(), day.To(), 0, 0});
        }
        return questions;
    }
};

/** What there is to say of one handler. */
struct Row {
    const ModelHandler* handler;
    const HandlerSchedule* schedule;
    const HandlerSchedule* before;
    /** In the order of the changes. */
    std::vector<const HandlerSchedule*> changes;
};

std::vector<Row> RowsOf(const ModelAnswers& model) {
    std::vector<Row> rows;
    for (size_t i = 0; i < model.schedules.front().size(); ++i) {
        Row row{model.FindHandler(model.schedules[0][i].handler), &model.schedules[0][i], &model.schedules[1][i], {}};
        for (size_t change = 2; change < model.schedules.size(); ++change) {
            row.changes.push_back(&model.schedules[change][i]);
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

std::string ZoneName(const StoreLocation& location) {
    return location.GetZone() ? Terminal::Escape(*location.GetZone()) : "local";
}

std::string FilterText(const ModelHandler& handler) {
    std::string text;
    for (const SettingsKey& key : FilterChain::keys.List()) {
        const auto value = handler.settings.find(std::string(NameOf(key)));
        if (value != handler.settings.end()) {
            text.append("  ").append(NameOf(key)).append("=").append(Terminal::Escape(value->second));
        }
    }
    return text.empty() ? "  always" : text;
}

std::string Remark(const Row& row) {
    std::string remark = row.handler->isLoaded ? "" : "  (the daemon does without it, so it never acts)";
    return remark.append(row.schedule->hasUnreadableRange ? "  (a range that cannot be read lets everything through)"
                                                          : "");
}

/** What stands before each strip, always of the same width. */
std::string DayLabel(const LocalDay& day, const std::string& zone) {
    std::string offset = day.OffsetText();
    offset.resize(std::max(offset.size(), offsetWidth), ' ');
    return "  " + std::string(day.GetDate().Weekday()) + " " + day.GetDate().Text() + " " + offset + " " + zone + " ";
}

void AddHours(const LocalDay& day, const std::string& zone, Answer& answer) {
    answer.AddLine(std::string(DayLabel(day, zone).size(), ' ') + hours);
}

void AddDay(const LocalDay& day, const std::vector<OpenSpan>& open, const std::string& zone, Answer& answer) {
    if (day.From() == day.To()) {
        answer.AddLine(DayLabel(day, zone) + "the clocks leave this day out");
        return;
    }
    const std::string spans = day.SpansText(open);
    answer.AddLine(DayLabel(day, zone) + day.Strip(open) + (spans.empty() ? "" : "  " + spans));
}

void AddText(const Row& row, const Span& span, const std::string& zone, Answer& answer) {
    answer.AddLine(
        Terminal::Coloured(Terminal::Colour::Bold, Terminal::Escape(HandlerName::Short(row.handler->group))) +
        FilterText(*row.handler) + Remark(row));
    AddHours(span.days.front(), zone, answer);
    for (const LocalDay& day : span.days) {
        AddDay(day, row.schedule->open, zone, answer);
    }
    if (!span.changes.empty()) {
        answer.AddLine("  when the clocks change:");
    }
    for (size_t i = 0; i < span.changes.size(); ++i) {
        AddDay(span.changes[i], row.changes[i]->open, zone, answer);
    }
    for (const OpenSpan& next : row.schedule->next) {
        answer.AddLine("  opens " + std::string(LocalTime(next.from).date.Weekday()) + " " + LocalTime::Iso(next.from) +
                       " " + zone + ", closes " + LocalTime::Iso(next.to));
    }
    if (row.schedule->next.empty() && span.openings > 0) {
        answer.AddLine(row.schedule->open.empty() ? "  never opens" : "  opens no more, for it never closes");
    }
    answer.AddLine("  before the clock is set:");
    AddDay(span.before, row.before->open, zone, answer);
}

void AddSpans(companion::Json& json, const char* key, const std::vector<OpenSpan>& spans) {
    json.Key(key).BeginArray();
    for (const OpenSpan& span : spans) {
        json.BeginObject();
        json.Key("from").String(LocalTime::Iso(span.from));
        json.Key("to").String(LocalTime::Iso(span.to));
        json.EndObject();
    }
    json.EndArray();
}

void AddJson(const Row& row, const Span& span, companion::Json& json) {
    json.BeginObject();
    json.Key("group").String(row.handler->group);
    json.Key("type").String(row.handler->type);
    json.Key("left_out").Bool(!row.handler->isLoaded);
    json.Key("unreadable_range").Bool(row.schedule->hasUnreadableRange);
    AddSpans(json, "open", row.schedule->open);
    AddSpans(json, "next", row.schedule->next);
    json.Key("dst").BeginArray();
    for (size_t i = 0; i < span.changes.size(); ++i) {
        const LocalDay& day = span.changes[i];
        json.BeginObject();
        json.Key("day").String(day.GetDate().Text());
        json.Key("from").String(LocalTime::Iso(day.From()));
        json.Key("to").String(LocalTime::Iso(day.To()));
        AddSpans(json, "open", row.changes[i]->open);
        json.Key("strip").String(day.Strip(row.changes[i]->open));
        json.EndObject();
    }
    json.EndArray();
    AddSpans(json, "before_clock_is_set", row.before->open);
    json.Key("days").BeginArray();
    for (const LocalDay& day : span.days) {
        json.BeginObject();
        json.Key("day").String(day.GetDate().Text());
        json.Key("strip").String(day.Strip(row.schedule->open));
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
}

void AddAllAsJson(const std::vector<Row>& rows, const Span& span, const StoreLocation& location, Answer& answer) {
    companion::Json json;
    JsonAnswer::Begin(json, "schedule", location);
    json.Key("from").String(LocalTime::Iso(span.days.front().From()));
    json.Key("to").String(LocalTime::Iso(span.days.back().To()));
    json.Key("handlers").BeginArray();
    for (const Row& row : rows) {
        AddJson(row, span, json);
    }
    json.EndArray();
    answer.AddLine(json.EndObject().Text());
}

void AddAllAsText(const std::vector<Row>& rows, const Span& span, const StoreLocation& location, Answer& answer) {
    if (rows.empty()) {
        answer.AddLine("The settings have no handlers.");
    }
    for (const Row& row : rows) {
        AddText(row, span, ZoneName(location), answer);
    }
}

void AddAllAsSvg(const std::vector<Row>& rows, const Span& span, const StoreLocation& location, Answer& answer) {
    ScheduleDrawing drawing(span.days, ZoneName(location));
    for (const Row& row : rows) {
        drawing.Add(HandlerName::Short(row.handler->group), FilterText(*row.handler) + Remark(row), row.schedule->open);
    }
    answer.Add(drawing.Text());
}

Span ReadSpan(const OptionReader& options, bool withChanges) {
    const int64_t now = LocalTime::Now();
    const std::optional<std::string> from = options.Value("--from");
    const Date first = from ? Date::Parse(*from) : LocalTime(now).date;
    Span span;
    span.days = Calendar::Days(first, options.Number("--days", 7, 1, mostDays));
    span.openings = options.Number("--next", 5, 0, mostOpenings);
    // Without a day it is about what comes now, in whole minutes.
    span.openingsFrom = from ? span.days.front().From() : now - LocalTime(now).second;
    if (withChanges) {
        span.changes = Calendar::ChangesIn(first.year);
    }
    return span;
}

ExitStatus RunSchedule(const Invocation& invocation, Answer& answer) {
    const OptionReader options(
        invocation.words, {{"--from", true}, {"--days", true}, {"--next", true}, {"--dst", false}, {"--svg", false}});
    if (options.Has("--svg") && invocation.format == Format::Json) {
        throw UsageError("an answer is either --format json or --svg");
    }
    const StoreLocation location = StoreLocation::Use(invocation);
    const Span span = ReadSpan(options, options.Has("--dst") || invocation.format == Format::Json);
    Store::Read(location.GetPath());
    ModelQuestions questions{.events = {}, .schedules = span.Questions(), .scheduleOf = {}};
    for (const std::string& name : options.Words()) {
        questions.scheduleOf.push_back(HandlerName::Group(name));
    }
    const ModelAnswers model = AskModel(questions);
    for (const std::string& name : options.Words()) {
        HandlerName::Find(model, name);
    }
    const std::vector<Row> rows = RowsOf(model);
    if (invocation.format == Format::Json) {
        AddAllAsJson(rows, span, location, answer);
    } else if (options.Has("--svg")) {
        AddAllAsSvg(rows, span, location, answer);
    } else {
        AddAllAsText(rows, span, location, answer);
    }
    return exitYes;
}

}  // namespace

const Verb verbSchedule{"schedule", "[HANDLER...] [--from DAY] [--days N] [--next N] [--dst] [--svg]",
                        "when handlers let events through", help, RunSchedule};

}  // namespace kelto::halvek::ctl
