#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

enum class Format { Text, Json };

/** A command line without the program's name: the options that all verbs share, the verb, and what is left for it. */
struct Invocation {
    std::optional<std::string> settings;
    std::optional<std::string> zone;
    /** The file of rules that is looked at instead of the installed one. */
    std::optional<std::string> rules;
    Format format = Format::Text;
    bool wantsHelp = false;
    bool wantsVersion = false;
    std::string verb;
    /** The verb's own options and words, in their order. */
    std::vector<std::string> words;

    /**
     * Takes the shared options out, wherever they stand before a word "--".
     *
     * @throws UsageError for one without its value, or with a value that it does not know
     */
    static Invocation Parse(const std::vector<std::string>& arguments);
};

}  // namespace kelto::halvek::ctl
