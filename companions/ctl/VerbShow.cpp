#include "companions/ctl/VerbShow.h"

#include "companions/ctl/CheckedStore.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/JsonAnswer.h"
#include "companions/ctl/OptionReader.h"
#include "companions/ctl/Terminal.h"
#include "companions/ctl/WeekStrip.h"
#include "companions/ctl/WiringDrawing.h"
#include "companions/ctl/WiringTexts.h"

namespace kelto::halvek::ctl {

namespace {

constexpr const char* help =
    "Sources, the handlers that they deliver to with their places in the order, and what those act on.\n"
    "  --as text|dot|svg|json  for people, for dot(1), a drawing, for programs (text)\n"
    "  --only GROUP            one source or handler, and what it has to do with\n"
    "Status: 0.\n";

enum class Look { Text, Dot, Svg, Json };

Look ParseLook(const Invocation& invocation, const OptionReader& options) {
    const std::string name = options.Value("--as").value_or(invocation.format == Format::Json ? "json" : "text");
    if (name == "text") {
        return Look::Text;
    }
    if (name == "dot") {
        return Look::Dot;
    }
    if (name == "svg") {
        return Look::Svg;
    }
    if (name == "json") {
        return Look::Json;
    }
    throw UsageError("--as is text, dot, svg or json, not " + name);
}

ExitStatus RunShow(const Invocation& invocation, Answer& answer) {
    const OptionReader options(invocation.words, {{"--as", true}, {"--only", true}});
    const Look look = ParseLook(invocation, options);
    if (!options.Words().empty()) {
        throw UsageError("show takes no word " + options.Words().front() + "; settings are named by --settings");
    }
    const StoreLocation location = StoreLocation::Use(invocation);
    const WeekStrip week;
    const ModelQuestions questions{.events = {}, .schedules = {week.Question()}, .scheduleOf = {}};
    const PostingRules rules = PostingRules::Read(invocation.rules);
    const CheckOptions checkOptions{
        .here = false, .zone = invocation.zone.value_or(""), .rules = rules, .questions = questions};
    const CheckedStore checked = CheckedStore::Check(location.GetPath(), checkOptions);
    // Of malformed settings it tells what the daemon refuses them for.
    Wiring wiring = Wiring::Of(checked.examination->model ? *checked.examination->model : AskModel(questions));
    wiring.AddRules(rules);
    wiring.Mark(checked.examination->Findings());
    if (const std::optional<std::string> only = options.Value("--only")) {
        wiring.KeepOnly(*only);
    }
    switch (look) {
        case Look::Text:
            answer.Add(WiringTexts::Plain(wiring, week));
            break;
        case Look::Dot:
            answer.Add(WiringTexts::Dot(wiring));
            break;
        case Look::Svg:
            answer.Add(WiringDrawing(wiring, week).Text());
            break;
        case Look::Json: {
            companion::Json json;
            JsonAnswer::Begin(json, "show", location);
            WiringTexts::AddJson(wiring, week, json);
            answer.AddLine(json.EndObject().Text());
            break;
        }
    }
    return exitYes;
}

}  // namespace

const Verb verbShow{"show", "[--as text|dot|svg|json] [--only GROUP]",
                    "which source leads to which handler, and what that acts on", help, RunShow};

}  // namespace kelto::halvek::ctl
