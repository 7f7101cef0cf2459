#include "companions/ctl/Invocation.h"

#include "companions/ctl/Failure.h"
#include "companions/ctl/OptionReader.h"

namespace kelto::halvek::ctl {

namespace {

const std::vector<OptionReader::Option> sharedOptions = {
    {"--settings", true}, {"--format", true}, {"--zone", true},     {"--rules", true},
    {"--help", false},    {"-h", false},      {"--version", false},
};

Format ParseFormat(const std::string& name) {
    if (name == "text") {
        return Format::Text;
    }
    if (name == "json") {
        return Format::Json;
    }
    throw UsageError("--format is text or json, not " + name);
}

}  // namespace

Invocation Invocation::Parse(const std::vector<std::string>& arguments) {
    const OptionReader reader(arguments, sharedOptions, OptionReader::Unknown::Kept);
    Invocation invocation;
    invocation.settings = reader.Value("--settings");
    invocation.zone = reader.Value("--zone");
    invocation.rules = reader.Value("--rules");
    invocation.format = ParseFormat(reader.Value("--format").value_or("text"));
    invocation.wantsHelp = reader.Has("--help") || reader.Has("-h");
    invocation.wantsVersion = reader.Has("--version");
    invocation.words = reader.Words();
    if (invocation.settings && invocation.settings->empty()) {
        throw UsageError("--settings wants a path");
    }
    if (invocation.rules && invocation.rules->empty()) {
        throw UsageError("--rules wants a path");
    }
    if (!invocation.words.empty()) {
        invocation.verb = invocation.words.front();
        invocation.words.erase(invocation.words.begin());
    }
    return invocation;
}

}  // namespace kelto::halvek::ctl
