#include "companions/ctl/OptionReader.h"

#include "companions/ctl/Failure.h"
#include "kelto/core/StringUtil.h"

#include <algorithm>

namespace kelto::halvek::ctl {

namespace {

bool LooksLikeOption(const std::string& word) {
    return word.size() > 1 && word.front() == '-';
}

bool IsNumber(const std::string& word) {
    return !word.empty() && word.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

OptionReader::OptionReader(const std::vector<std::string>& arguments, const std::vector<Option>& known,
                           Unknown unknown) {
    for (auto word = arguments.begin(); word != arguments.end(); ++word) {
        if (*word == "--") {
            words.insert(words.end(), unknown == Unknown::Kept ? word : word + 1, arguments.end());
            return;
        }
        const size_t equals = word->find('=');
        const std::string name = word->substr(0, equals);
        const auto option =
            std::find_if(known.begin(), known.end(), [&](const Option& one) { return one.name == name; });
        if (option == known.end()) {
            if (LooksLikeOption(*word) && unknown == Unknown::Refused) {
                throw UsageError("unknown option " + name);
            }
            words.push_back(*word);
        } else if (!option->takesValue) {
            if (equals != std::string::npos) {
                throw UsageError(name + " takes no value");
            }
            values[name];
        } else if (equals != std::string::npos) {
            values[name] = word->substr(equals + 1);
        } else if (!option->absent.empty() && (std::next(word) == arguments.end() || !IsNumber(*std::next(word)))) {
            values[name] = option->absent;
        } else if (std::next(word) != arguments.end()) {
            values[name] = *++word;
        } else {
            throw UsageError(name + " wants a value");
        }
    }
}

std::optional<std::string> OptionReader::Value(const std::string& name) const {
    const auto found = values.find(name);
    return found == values.end() ? std::nullopt : std::optional(found->second);
}

int32_t OptionReader::Number(const std::string& name, int32_t absent, int32_t lowest, int32_t highest) const {
    const auto found = values.find(name);
    if (found == values.end()) {
        return absent;
    }
    int32_t number = 0;
    if (!core::StringUtil::TryParse(found->second, number) || number < lowest || number > highest) {
        throw UsageError(name + " is a number from " + std::to_string(lowest) + " to " + std::to_string(highest) +
                         ", not " + found->second);
    }
    return number;
}

}  // namespace kelto::halvek::ctl
