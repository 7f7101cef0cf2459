#include "companions/page/Adviser.h"

#include "camera/runtime/EventLoop.h"
#include "companions/common/Json.h"
#include "companions/page/Options.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <string_view>
#include <utility>

namespace kelto::page {

namespace {

using companion::Json;
using vcam::EventLoop;

constexpr uint64_t leastInterval = 200'000;  // microseconds

/** The daemon adds these to every event, and no handler looks at them. */
constexpr std::string_view ofTheDaemon[] = {"FormattedTime", "Timestamp", "eventType"};

void AnswerAll(const std::vector<HttpExchangePtr>& exchanges, const std::string& json) {
    HttpAnswer answer;
    answer.contentType = "application/json";
    answer.body = json;
    for (const HttpExchangePtr& exchange : exchanges) {
        exchange->Answer(answer);
    }
}

/** Its first line says only which settings it takes. */
std::string ProblemIn(std::string_view complaints) {
    if (complaints.starts_with("halvekctl: settings ")) {
        complaints.remove_prefix(std::min(complaints.size(), complaints.find('\n')));
    }
    const size_t begin = complaints.find_first_not_of('\n');
    const size_t end = complaints.find_last_not_of('\n');
    return begin == std::string_view::npos ? "halvekctl says nothing"
                                           : std::string(complaints.substr(begin, end + 1 - begin));
}

/** Why there is no answer; empty if there is one. */
std::string ProblemOf(const Errand::Outcome& outcome) {
    constexpr int answersNo = 1;
    if (!outcome.problem.empty()) {
        return outcome.problem;
    }
    return outcome.status <= answersNo && !outcome.output.empty() ? "" : ProblemIn(outcome.complaints);
}

/** The page has colours of its own, light and dark, and its policy forbids those that stand in a document. */
std::string WithoutStyle(std::string drawing) {
    constexpr std::string_view end = "</style>";
    const size_t from = drawing.find("<style>");
    const size_t to = drawing.find(end);
    if (from < to && to != std::string::npos) {
        drawing.erase(from, to + end.size() - from);
    }
    return drawing;
}

/** A list of what halvekctl answered, as it is. */
std::string ListIn(const nlohmann::json& answer, const char* name) {
    const auto found = answer.find(name);
    return found != answer.end() && found->is_array() ? found->dump() : "[]";
}

}  // namespace

Adviser::Adviser(EventLoop& eventLoop, const Options& options)
    : program(options.halvekctl), settings(options.settings), timer(eventLoop), errand(eventLoop) {}

void Adviser::Take(const companion::ReceivedEvent& event, uint64_t seq, const std::string& isoTime) {
    last = {.seq = seq, .type = event.type, .words = {event.type}, .time = isoTime};
    for (const auto& [key, value] : event.properties) {
        if (std::ranges::find(ofTheDaemon, key) == std::end(ofTheDaemon)) {
            last.words.push_back(key);
            last.words.back().append("=").append(value);
        }
    }
    for (std::string& word : last.words) {
        std::erase(word, '\0');
    }
}

void Adviser::Draw(const HttpExchangePtr& exchange) {
    forDrawing.push_back(exchange);
    RunSoon();
}

void Adviser::Explain(const HttpExchangePtr& exchange) {
    if (last.seq == 0) {
        AnswerAll({exchange}, R"({"problem":"","seq":0})");
        return;
    }
    forExplanation.push_back(exchange);
    RunSoon();
}

void Adviser::RunSoon() {
    const bool isAsked = !forDrawing.empty() || !forExplanation.empty();
    if (isAsked && !errand.IsUnderWay() && !timer.IsStarted()) {
        timer.StartAt(std::max(earliest, EventLoop::Now()), [this] { RunNext(); });
    }
}

void Adviser::RunNext() {
    earliest = EventLoop::Now() + leastInterval;
    // In turn, so that neither keeps the other waiting.
    hasJustDrawn = !forDrawing.empty() && (forExplanation.empty() || !hasJustDrawn);
    if (hasJustDrawn) {
        RunDraw();
    } else {
        RunExplain();
    }
}

void Adviser::RunDraw() {
    errand.Run(Command({"show", "--as", "svg"}),
               [this, waiting = std::exchange(forDrawing, {})](const Errand::Outcome& outcome) {
                   const std::string problem = ProblemOf(outcome);
                   Json json;
                   json.BeginObject().Key("problem").String(problem).Key("drawing");
                   json.String(problem.empty() ? WithoutStyle(outcome.output) : "").EndObject();
                   AnswerAll(waiting, json.Text());
                   RunSoon();
               });
}

void Adviser::RunExplain() {
    std::vector<std::string> words = {"--format", "json", "explain", "--at", last.time, "--"};
    words.insert(words.end(), last.words.begin(), last.words.end());
    errand.Run(Command(words),
               [this, event = last, waiting = std::exchange(forExplanation, {})](const Errand::Outcome& outcome) {
                   const nlohmann::json answer = nlohmann::json::parse(outcome.output, nullptr, false);
                   std::string problem = ProblemOf(outcome);
                   if (problem.empty() && !answer.is_object()) {
                       problem = "halvekctl has not answered in JSON";
                   }
                   Json json;
                   json.BeginObject().Key("problem").String(problem).Key("seq").Number(static_cast<int64_t>(event.seq));
                   json.Key("type").String(event.type).Key("time").String(event.time).EndObject();
                   std::string text = json.Text();
                   text.pop_back();
                   // What these lists hold is JSON already.
                   AnswerAll(waiting, text + R"(,"rows":)" + ListIn(answer, "rows") + R"(,"alwaysOn":)" +
                                          ListIn(answer, "always_on") + R"(,"rules":)" + ListIn(answer, "rules") + "}");
                   RunSoon();
               });
}

std::vector<std::string> Adviser::Command(const std::vector<std::string>& words) const {
    std::vector<std::string> command = {program};
    if (!settings.empty()) {
        command.insert(command.end(), {"--settings", settings});
    }
    command.insert(command.end(), words.begin(), words.end());
    return command;
}

}  // namespace kelto::page
