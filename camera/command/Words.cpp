#include "camera/command/Words.h"

#include "camera/command/OneLine.h"
#include "camera/runtime/Failure.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace kelto::vcam {

namespace {

bool IsOption(const std::string& word) {
    return word.starts_with("--");
}

}  // namespace

std::string Words::TakeOption(const std::string& name, const std::string& otherwise) {
    const std::vector<std::string> values = TakeOptions(name);
    if (values.size() > 1) {
        Refuse(name + " is there more than once");
    }
    return values.empty() ? otherwise : values.front();
}

std::vector<std::string> Words::TakeOptions(const std::string& name) {
    std::vector<std::string> values;
    for (auto word = words.begin(); word != words.end();) {
        if (word->starts_with(name + "=")) {
            values.push_back(word->substr(name.size() + 1));
            word = words.erase(word);
        } else if (*word == name) {
            word = words.erase(word);
            if (word == words.end() || IsOption(*word)) {
                Refuse(name + " needs a value");
            }
            values.push_back(*word);
            word = words.erase(word);
        } else {
            ++word;
        }
    }
    return values;
}

bool Words::TakeFlag(const std::string& name) {
    return std::erase(words, name) > 0;
}

std::string Words::TakeArgument(const std::string& what) {
    const auto option = std::find_if(words.begin(), words.end(), IsOption);
    if (option != words.end()) {
        RefuseOption(*option);
    }
    if (words.empty()) {
        Refuse(what + " is missing");
    }
    std::string argument = words.front();
    words.erase(words.begin());
    return argument;
}

int32_t Words::TakeNumber(const std::string& what) {
    const std::string text = TakeArgument(what);
    int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size()) {
        Refuse(what + " is \"" + text + "\", which is no whole number of 32 bits");
    }
    return number;
}

bool Words::TakeSwitch(const std::string& what) {
    const std::string text = TakeArgument(what);
    if (text != "on" && text != "off") {
        Refuse(what + " is \"" + text + R"(", which is neither "on" nor "off")");
    }
    return text == "on";
}

void Words::ExpectNoMore() const {
    if (words.empty()) {
        return;
    }
    const std::string& word = words.front();
    if (IsOption(word)) {
        RefuseOption(word);
    }
    Refuse("There is nothing to be done with \"" + word + "\"");
}

void Words::Refuse(const std::string& problem) const {
    throw Failure(OneLine(problem) + ". Usage: kelto-vcam " + usage);
}

void Words::RefuseOption(const std::string& word) const {
    Refuse("There is no option \"" + word + "\"");
}

}  // namespace kelto::vcam
