#include "companions/ctl/RunCtl.h"

#include "companions/ctl/Failure.h"
#include "companions/ctl/Nearest.h"
#include "companions/ctl/Terminal.h"
#include "companions/ctl/Verb.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* shared =
    "Options of all verbs:\n"
    "  --settings PATH     the settings: an ini file, or a folder of them\n"
    "  --format text|json  how to answer (text)\n"
    "  --zone ZONE         the camera's time zone, Europe/Berlin for instance\n"
    "  --rules PATH        the rules of halvek-rules (/etc/halvek-rules/rules.conf)\n"
    "  --help              what there is to say of a verb\n"
    "  --version           the version\n";

/**
 * Takes the places of those of descriptors 0 to 2 that the starter has closed, so that no file of ours gets one. They
 * are opened the wrong way round: what is written to a closed output must fail.
 */
void TakeClosedDescriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0) {
            static_cast<void>(!open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY));
        }
    }
}

std::string Help() {
    std::string text =
        "usage: halvekctl [OPTION...] VERB [...]\n\n"
        "Tells what the daemon halvek will do with its settings, and what it does.\n\n";
    for (const Verb& verb : Verbs()) {
        std::string name = std::string("  ") + verb.name;
        name.resize(std::max<size_t>(name.size() + 1, 14), ' ');
        text.append(name).append(verb.summary).append("\n");
    }
    return text.append("\n").append(shared).append(
        "\nStatus: 0 yes, 1 no, 2 wrong command line, 3 it could not be done. \"halvekctl VERB --help\" says more.\n");
}

std::string HelpOf(const Verb& verb) {
    return std::string("usage: halvekctl [OPTION...] ") + verb.name + " " + verb.operands + "\n\n" + verb.summary +
           "\n\n" + verb.help + "\n" + shared;
}

std::string WhatIsNoVerb(const std::string& word) {
    if (word.empty()) {
        return "a verb is missing.";
    }
    if (word.front() == '-') {
        return "unknown option " + word.substr(0, word.find('=')) + ".";
    }
    std::vector<std::string> names;
    for (const Verb& verb : Verbs()) {
        names.emplace_back(verb.name);
    }
    const std::optional<std::string> nearest = Nearest::Find(word, names);
    return "there is no verb " + word + (nearest ? "; did you mean " + *nearest + "?" : ".");
}

const Verb& FindVerb(const std::string& name) {
    const std::span<const Verb> verbs = Verbs();
    const auto found = std::find_if(verbs.begin(), verbs.end(), [&](const Verb& verb) { return name == verb.name; });
    if (found == verbs.end()) {
        throw UsageError(WhatIsNoVerb(name) + " See halvekctl --help");
    }
    return *found;
}

ExitStatus RunVerb(const Invocation& invocation, Answer& answer) {
    if (invocation.wantsVersion) {
        answer.AddLine("halvekctl " HALVEKCTL_VERSION);
        return exitYes;
    }
    if (invocation.wantsHelp) {
        answer.Add(invocation.verb.empty() ? Help() : HelpOf(FindVerb(invocation.verb)));
        return exitYes;
    }
    return FindVerb(invocation.verb).run(invocation, answer);
}

}  // namespace

int RunCtl(int argc, char** argv) {
    TakeClosedDescriptors();
    try {
        Answer answer;
        const ExitStatus status = RunVerb(Invocation::Parse({argv + std::min(argc, 1), argv + argc}), answer);
        answer.Flush();
        return status;
    } catch (const UsageError& error) {
        Terminal::Complain(error.what());
        return exitUsage;
    } catch (const std::exception& failure) {
        Terminal::Complain(failure.what());
        return exitFailed;
    }
}

}  // namespace kelto::halvek::ctl
