#include "companions/ctl/Expectations.h"

#include "companions/ctl/Failure.h"
#include "companions/ctl/HandlerName.h"
#include "companions/ctl/LocalTime.h"
#include "companions/ctl/PlainFile.h"
#include "kelto/core/StringUtil.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string_view>

namespace kelto::halvek::ctl {

namespace {

constexpr size_t mostBytes = size_t{1} << 20U;
constexpr const char* arrow = "=>";

std::vector<std::string> WordsOf(std::string_view line) {
    std::vector<std::string> words;
    constexpr std::string_view blanks = " \t\r";
    while (true) {
        const size_t begin = line.find_first_not_of(blanks);
        if (begin == std::string_view::npos) {
            return words;
        }
        line.remove_prefix(begin);
        words.emplace_back(line.substr(0, line.find_first_of(blanks)));
        line.remove_prefix(words.back().size());
    }
}

void CheckLineBreaks(const std::string& text) {
    if (text.find('\n') != std::string::npos) {
        throw UsageError("an event has no line breaks");
    }
}

Expectation ParseLine(const std::vector<std::string>& words, int64_t defaultTime) {
    const auto turn = std::find(words.begin(), words.end(), arrow);
    if (turn == words.end() || std::next(turn) == words.end()) {
        throw UsageError("an expectation is written like: at 2026-11-23T09:15 Doorbell => Handler#2 !Handler#1");
    }
    Expectation expectation{};
    auto event = words.begin();
    int64_t time = defaultTime;
    if (*event == "at" && turn - event > 1) {
        time = LocalTime::Parse(event[1]);
        event += 2;
    }
    expectation.event = ParseEvent({event, turn}, time);
    for (auto name = std::next(turn); name != words.end(); ++name) {
        const bool acts = name->front() != '!';
        (acts ? expectation.acting : expectation.notActing).push_back(HandlerName::Group(name->substr(acts ? 0 : 1)));
    }
    return expectation;
}

}  // namespace

EventQuestion ParseEvent(const std::vector<std::string>& words, int64_t time) {
    if (words.empty() || words.front().empty()) {
        throw UsageError("the event's type is missing");
    }
    EventQuestion event{words.front(), {}, time};
    CheckLineBreaks(event.type);
    if (event.type.find(']') != std::string::npos) {
        throw UsageError("an event's type has no \"]\"");
    }
    for (auto word = std::next(words.begin()); word != words.end(); ++word) {
        CheckLineBreaks(*word);
        const size_t equals = word->find('=');
        if (equals == std::string::npos || std::isalnum(static_cast<unsigned char>(word->front())) == 0) {
            throw UsageError("a property is written key=value, and begins with a letter or digit; not " + *word);
        }
        event.properties[word->substr(0, equals)] = word->substr(equals + 1);
    }
    const auto index = event.properties.find("alarmIndex");
    int32_t number = 0;
    if (event.type == "Alarm" && index != event.properties.end() &&
        !core::StringUtil::TryParse(index->second, number)) {
        throw UsageError("an alarmIndex is a number, not " + index->second);
    }
    return event;
}

std::vector<Expectation> Expectation::ReadAll(const std::string& path, int64_t defaultTime) {
    std::vector<Expectation> expectations;
    unsigned number = 0;
    for (const std::string& line : core::StringUtil::Split(ReadPlainFile(path, mostBytes), '\n')) {
        ++number;
        const std::vector<std::string> words = WordsOf(line);
        if (words.empty() || words.front().front() == '#' || words.front().front() == ';') {
            continue;
        }
        try {
            expectations.push_back(ParseLine(words, defaultTime));
            expectations.back().line = number;
        } catch (const UsageError& error) {
            throw UsageError(path + ":" + std::to_string(number) + ": " + error.what());
        }
    }
    return expectations;
}

}  // namespace kelto::halvek::ctl
