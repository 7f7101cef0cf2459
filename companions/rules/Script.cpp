#include "companions/rules/Script.h"

#include "companions/rules/Condition.h"

#include <algorithm>
#include <cmath>

namespace kelto::companion::rules {

namespace {

constexpr std::string_view blanks = " \t\r";
constexpr std::string_view arrow = "=>";
constexpr double longestDelay = 315360000;

std::invalid_argument Wrong(const std::string& text) {
    return std::invalid_argument(text);
}

/** Takes the next word off; empty at the end. A value may stand in double quotes. */
std::string TakeWord(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
    size_t end = std::min(line.find_first_of(blanks), line.size());
    const size_t quote = line.substr(0, end).find("=\"");
    if (quote == std::string_view::npos) {
        std::string word(line.substr(0, end));
        line.remove_prefix(end);
        return word;
    }
    const size_t close = line.find('"', quote + 2);
    if (close == std::string_view::npos) {
        throw Wrong("a value in quotes has no second quote");
    }
    end = close + 1;
    if (end < line.size() && blanks.find(line[end]) == std::string_view::npos) {
        throw Wrong("a value in quotes goes on behind them");
    }
    std::string word(line.substr(0, quote + 1));
    word.append(line.substr(quote + 2, close - quote - 2));
    line.remove_prefix(end);
    return word;
}

ScriptEvent ParseEvent(std::string_view line) {
    // What is posted and what is passed on have the same grammar.
    PostedEvent event(TakeWord(line));
    for (std::string word = TakeWord(line); !word.empty(); word = TakeWord(line)) {
        event.SetByWord(word);
    }
    return {event.Type(), event.Properties()};
}

bool HasMore(std::string_view line) {
    return line.find_first_not_of(blanks) != std::string_view::npos;
}

void TakeTime(std::string_view line, unsigned number, Script& script) {
    const std::string word = TakeWord(line);
    const std::optional<double> seconds = ParseNumber(std::string_view(word).substr(1));
    if (!seconds || *seconds < 0 || *seconds > longestDelay) {
        throw Wrong("\"+\" wants a number of seconds");
    }
    Script::Step step;
    step.line = number;
    step.delay = Rule::Milliseconds(std::llround(*seconds * 1000));
    if (HasMore(line)) {
        step.event = ParseEvent(line);
    }
    script.steps.push_back(std::move(step));
}

void TakeExpectation(std::string_view line, unsigned number, Script& script) {
    if (script.steps.empty()) {
        throw Wrong("nothing can have come out before the first line with a time");
    }
    if (HasMore(line)) {
        script.steps.back().expected.emplace_back(number, ParseEvent(line));
    }
}

void TakeLine(std::string_view line, unsigned number, Script& script) {
    line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
    if (line.empty() || line.front() == '#' || line.front() == ';') {
        return;
    }
    if (line.front() == '+') {
        TakeTime(line, number, script);
    } else if (line.starts_with(arrow)) {
        TakeExpectation(line.substr(arrow.size()), number, script);
    } else {
        throw Wrong("a line is \"+SECONDS TYPE key=value...\" or \"=> TYPE key=value...\"");
    }
}

}  // namespace

std::string ScriptEvent::Text() const {
    std::string text = type;
    for (const auto& [key, value] : properties) {
        const bool hasBlank = value.find_first_of(blanks) != std::string::npos || value.starts_with('"');
        text.append(" ").append(key).append(hasBlank ? "=\"" + value + "\"" : "=" + value);
    }
    return text;
}

Script Script::Parse(const std::string& name, std::string_view text) {
    Script script;
    for (unsigned number = 1; !text.empty(); ++number) {
        const size_t end = std::min(text.find('\n'), text.size());
        try {
            TakeLine(text.substr(0, end), number, script);
        } catch (const std::invalid_argument& error) {
            throw ScriptError(name + ":" + std::to_string(number) + ": " + error.what());
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return script;
}

}  // namespace kelto::companion::rules
