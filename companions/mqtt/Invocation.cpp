#include "companions/mqtt/Invocation.h"

#include <map>
#include <optional>

namespace kelto::halvek::mqtt {

namespace {

using Deed = Invocation::Deed;

const std::map<std::string, Deed> verbs = {
    {"check", Deed::Check}, {"print-discovery", Deed::PrintDiscovery}, {"status", Deed::Status}};

/** Takes the value of an option: behind its "=", or the next word. */
std::optional<std::string> Value(const std::vector<std::string>& words, size_t& place, const std::string& option) {
    const std::string& word = words[place];
    if (word.starts_with(option + "=")) {
        return word.substr(option.size() + 1);
    }
    if (word != option) {
        return std::nullopt;
    }
    if (++place == words.size()) {
        throw UsageError(option + " needs a value");
    }
    return words[place];
}

bool IsJson(const std::string& format) {
    if (format != "text" && format != "json") {
        throw UsageError("the format is text or json, not " + format);
    }
    return format == "json";
}

}  // namespace

Invocation Invocation::Parse(const std::vector<std::string>& arguments) {
    Invocation invocation;
    bool hasVerb = false;
    bool hasFile = false;
    for (size_t place = 0; place < arguments.size(); ++place) {
        const std::string& word = arguments[place];
        if (word == "--help" || word == "--version") {
            invocation.deed = word == "--help" ? Deed::Help : Deed::Version;
            return invocation;
        }
        if (const auto path = Value(arguments, place, "--config")) {
            invocation.config = *path;
        } else if (const auto format = Value(arguments, place, "--format")) {
            invocation.wantsJson = IsJson(*format);
        } else if (word.starts_with('-')) {
            throw UsageError("there is no option " + word + ", see halvek-mqtt --help");
        } else if (const auto verb = verbs.find(word); !hasVerb && verb != verbs.end()) {
            invocation.deed = verb->second;
            hasVerb = true;
        } else if (!hasVerb) {
            throw UsageError("there is no verb " + word + ", see halvek-mqtt --help");
        } else if (invocation.deed != Deed::Status && !hasFile) {
            invocation.config = word;
            hasFile = true;
        } else {
            throw UsageError("there is nothing to be done with " + word);
        }
    }
    return invocation;
}

}  // namespace kelto::halvek::mqtt
