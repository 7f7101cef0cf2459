#include "companions/rules/CommandLine.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace kelto::companion::rules {

namespace {

constexpr std::array<std::string_view, 4> optionsWithValues = {"--rules", "--event-pipe", "--pipe-folder", "--format"};

void SetOption(const std::string& name, const std::string& value, CommandLine& line) {
    if (value.empty()) {
        throw UsageError(name + " wants a value");
    }
    if (name == "--rules") {
        line.rules = value;
    } else if (name == "--event-pipe") {
        line.eventPipe = value;
    } else if (name == "--pipe-folder") {
        line.pipeFolder = value;
    } else if (value == "text" || value == "json") {
        line.wantsJson = value == "json";
    } else {
        throw UsageError("--format is text or json, not " + value);
    }
}

/** Takes the options out of the words, wherever they stand before a word "--". */
std::vector<std::string> TakeOptions(const std::vector<std::string>& words, CommandLine& line) {
    std::vector<std::string> rest;
    for (auto word = words.begin(); word != words.end(); ++word) {
        const size_t equals = std::min(word->find('='), word->size());
        const std::string name = word->substr(0, equals);
        if (*word == "--") {
            rest.insert(rest.end(), std::next(word), words.end());
            return rest;
        }
        if (*word == "--help" || *word == "-h") {
            line.verb = CommandLine::Verb::Help;
        } else if (*word == "--version") {
            line.verb = CommandLine::Verb::Version;
        } else if (std::ranges::find(optionsWithValues, name) != optionsWithValues.end()) {
            if (equals == word->size() && std::next(word) == words.end()) {
                throw UsageError(name + " wants a value");
            }
            SetOption(name, equals == word->size() ? *++word : word->substr(equals + 1), line);
        } else if (word->size() > 1 && word->front() == '-') {
            throw UsageError("there is no option " + name + ", see halvek-rules --help");
        } else {
            rest.push_back(*word);
        }
    }
    return rest;
}

void TakeVerb(const std::vector<std::string>& words, CommandLine& line) {
    if (words.empty()) {
        return;
    }
    const std::string& verb = words.front();
    if (verb == "check") {
        line.verb = CommandLine::Verb::Check;
        line.rules = words.size() > 1 ? words[1] : line.rules;
    } else if (verb == "test") {
        line.verb = CommandLine::Verb::Test;
        if (words.size() < 2) {
            throw UsageError("test wants a script");
        }
        line.script = words[1];
    } else {
        throw UsageError("there is no verb " + verb + ", see halvek-rules --help");
    }
    if (words.size() > 2) {
        throw UsageError(verb + " takes one file");
    }
}

}  // namespace

CommandLine CommandLine::Parse(const std::vector<std::string>& words) {
    CommandLine line;
    const std::vector<std::string> rest = TakeOptions(words, line);
    if (line.verb != Verb::Help && line.verb != Verb::Version) {
        TakeVerb(rest, line);
    }
    return line;
}

}  // namespace kelto::companion::rules
