#pragma once

#include "companions/common/EventPipe.h"
#include "companions/common/ListenerPipe.h"
#include "companions/rules/RuleFile.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelto::companion::rules {

/** The command line asks for what there is not; the text says what. */
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** What the words on the command line ask for. A plain value. */
struct CommandLine {
    enum class Verb { Serve, Check, Test, Help, Version };

    /** @param words without the program's name @throws UsageError */
    static CommandLine Parse(const std::vector<std::string>& words);

    Verb verb = Verb::Serve;
    std::string rules = RuleFile::defaultPath;
    std::string eventPipe = EventPipe::defaultPath;
    /** Where the output pipe is made. */
    std::string pipeFolder = ListenerPipe::defaultFolder;
    bool wantsJson = false;
    /** The script of a test. */
    std::string script;
};

}  // namespace kelto::companion::rules
