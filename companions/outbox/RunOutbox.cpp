#include "companions/outbox/RunOutbox.h"

#include "companions/common/DaemonSettings.h"
#include "companions/common/ExitStatus.h"
#include "companions/common/Json.h"
#include "companions/outbox/HostKey.h"
#include "companions/outbox/Log.h"
#include "companions/outbox/Paths.h"
#include "companions/outbox/Request.h"
#include "companions/outbox/Service.h"
#include "companions/outbox/TroubleNews.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace kelto::halvek::outbox {

using companion::Credentials;
using companion::Json;
using enum companion::ExitStatus;

namespace {

constexpr std::chrono::seconds patience{30};

constexpr const char* help =
    "usage: halvek-outbox [--format text|json] VERB [...]\n\n"
    "Keeps pictures and mails until they are delivered.\n\n"
    "  list              what is waiting\n"
    "  show ID           more of one item\n"
    "  status            how the targets do, and what became of the items\n"
    "  flush [TARGET]    tries now what is to be tried later\n"
    "  drop ID           gives an item up\n"
    "  hold [TARGET]     sends nothing until \"release\"\n"
    "  release [TARGET]  sends again\n"
    "  check             what is wrong with /etc/halvek-outbox/outbox.conf\n"
    "  trust HOST        shows the key of an SFTP server, and stores it after a yes (--yes)\n"
    "  serve             is the service\n\n"
    "Status: 0 yes, 1 no, 2 wrong command line, 3 it could not be done.\n";

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Verb {
    const char* name;
    size_t fewestWords;
    size_t mostWords;
};
constexpr Verb verbs[] = {{"list", 0, 0}, {"show", 1, 1},    {"status", 0, 0}, {"flush", 0, 1}, {"drop", 1, 1},
                          {"hold", 0, 1}, {"release", 0, 1}, {"check", 0, 0},  {"trust", 1, 1}, {"serve", 0, 0}};

struct CommandLine {
    bool isJson = false;
    bool isYes = false;
    bool wantsHelp = false;
    bool wantsVersion = false;
    std::string verb;
    std::string argument;
};

CommandLine Parse(const std::vector<std::string>& words) {
    CommandLine line;
    std::vector<std::string> plain;
    bool hasOptions = true;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (!hasOptions || !word.starts_with("-") || word == "-") {
            plain.push_back(word);
        } else if (word == "--") {
            hasOptions = false;
        } else if (word == "--help") {
            line.wantsHelp = true;
        } else if (word == "--version") {
            line.wantsVersion = true;
        } else if (word == "--yes") {
            line.isYes = true;
        } else if (word == "--format" || word.starts_with("--format=")) {
            const std::string format = word == "--format" ? (++i < words.size() ? words[i] : "") : word.substr(9);
            if (format != "text" && format != "json") {
                throw UsageError("--format is text or json");
            }
            line.isJson = format == "json";
        } else {
            throw UsageError("there is no option " + word + ", see halvek-outbox --help");
        }
    }
    if (line.wantsHelp || line.wantsVersion) {
        return line;
    }
    if (plain.empty()) {
        throw UsageError("a verb is missing, see halvek-outbox --help");
    }
    const auto verb = std::find_if(std::begin(verbs), std::end(verbs),
                                   [&](const Verb& known) { return plain.front() == known.name; });
    if (verb == std::end(verbs)) {
        throw UsageError("there is no verb " + plain.front() + ", see halvek-outbox --help");
    }
    if (plain.size() - 1 < verb->fewestWords || plain.size() - 1 > verb->mostWords) {
        throw UsageError(plain.front() + (verb->mostWords == 0 ? " takes no word" : " takes one word"));
    }
    line.verb = plain.front();
    line.argument = plain.size() > 1 ? plain[1] : "";
    return line;
}

/** Throws Unreachable if nobody takes it. */
void Print(const std::string& text) {
    std::cout << text << std::flush;
    if (!std::cout) {
        throw Unreachable("standard output takes no more");
    }
}

int Ask(const CommandLine& line) {
    std::string text;
    FieldText::Append(text, "verb", line.verb);
    FieldText::Append(text, "format", line.isJson ? "json" : "text");
    FieldText::Append(text, "argument", line.argument);
    Request request(Paths().socket, patience);
    request.Send(text + "\n");
    const std::string first = request.ReadLine();
    const std::optional<int64_t> status =
        first.starts_with("status ") ? FieldText::Number(first.substr(7), exitFailed) : std::nullopt;
    if (!status) {
        throw Unreachable(first.empty() ? "the outbox says nothing" : "the outbox says: " + first);
    }
    const std::string rest = request.ReadAll();
    if (*status == exitYes || line.isJson) {
        Print(rest);
    } else {
        Log::Say("halvek-outbox: " + rest.substr(0, rest.find('\n')));
    }
    return static_cast<int>(*status);
}

/** Those of the service; outside of it, what root may read. Who may not, is told nothing about secrets. */
Credentials SecretsToCheck(const Paths& paths, std::vector<Finding>& findings) {
    try {
        const Credentials own = Credentials::OfThisProcess();
        const bool isReadable = access(paths.secrets.c_str(), R_OK) == 0;
        return own.HasFolder() || !isReadable
                   ? own
                   : Credentials::OfFolder(paths.secrets.substr(0, paths.secrets.rfind('/')));
    } catch (const std::runtime_error& failure) {
        findings.push_back({paths.secrets, paths.secrets, {1, 1}, failure.what()});
        return {};
    }
}

int Check(const CommandLine& line) {
    const Paths paths;
    std::vector<Finding> findings;
    const Credentials credentials = SecretsToCheck(paths, findings);
    const Settings settings = Settings::Load(paths.configuration, credentials);
    findings.insert(findings.end(), settings.findings.begin(), settings.findings.end());
    const std::string mailing =
        settings.postsTrouble ? TroubleNews::MailingHandler(companion::DaemonSettings::Path()) : "";
    if (!mailing.empty()) {
        findings.push_back({paths.configuration + ":" + std::to_string(settings.postPlace.line) + ":" +
                                std::to_string(settings.postPlace.column),
                            paths.configuration, settings.postPlace,
                            "Post: " + mailing + " would mail it, and there are no mails about mails"});
    }
    Json json;
    json.BeginObject().Key("format").Number(1).Key("tool").String("halvek-outbox " HALVEK_OUTBOX_VERSION);
    json.Key("verb").String("check").Key("findings").BeginArray();
    std::string text;
    for (const Finding& finding : findings) {
        text += finding.place + ": " + finding.text + "\n";
        json.BeginObject().Key("file").String(finding.file).Key("line").Number(finding.position.line);
        json.Key("column").Number(finding.position.column).Key("text").String(finding.text).EndObject();
    }
    Print(line.isJson ? json.EndArray().EndObject().Text() + "\n" : text);
    return findings.empty() ? exitYes : exitNo;
}

/** A person's yes: without a terminal there is none. */
bool HasYes() {
    if (isatty(STDIN_FILENO) == 0) {
        Log::Say("halvek-outbox: nobody can be asked: say --yes");
        return false;
    }
    Print("Is this the server's key (yes/no)? ");
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "yes";
}

int Trust(const CommandLine& line) {
    const HostKey key = HostKey::Ask(line.argument);
    if (!line.isJson) {
        Print(key.Host() + " " + key.Type() + " " + key.Fingerprint() + "\n");
    }
    const bool isTrusted = line.isYes || (!line.isJson && HasYes());
    if (isTrusted) {
        key.Store(Paths().knownHosts);
    } else {
        Log::Say("halvek-outbox: not stored");
    }
    if (line.isJson) {
        Json json;
        json.BeginObject().Key("format").Number(1).Key("tool").String("halvek-outbox " HALVEK_OUTBOX_VERSION);
        json.Key("verb").String("trust").Key("host").String(key.Host()).Key("type").String(key.Type());
        json.Key("fingerprint").String(key.Fingerprint()).Key("stored").Bool(isTrusted).EndObject();
        Print(json.Text() + "\n");
    }
    return isTrusted ? exitYes : exitNo;
}

int Serve() {
    // What it holds is nobody's business, not even after a crash.
    prctl(PR_SET_DUMPABLE, 0);
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGPIPE}) {
        sigaddset(&blocked, signal);
    }
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    int status = EXIT_FAILURE;
    {
        // Left as it is: its threads may be in the middle of something that takes its time, and nothing is lost by it.
        auto* service = new Service(Paths());
        status = service->Run();
    }
    _exit(status);
}

int RunVerb(const CommandLine& line) {
    if (line.wantsHelp) {
        Print(help);
        return exitYes;
    }
    if (line.wantsVersion) {
        Print("halvek-outbox " HALVEK_OUTBOX_VERSION "\n");
        return exitYes;
    }
    if (line.verb == "serve") {
        return Serve();
    }
    if (line.verb == "check") {
        return Check(line);
    }
    return line.verb == "trust" ? Trust(line) : Ask(line);
}

}  // namespace

int RunOutbox(int argc, char** argv) {
    try {
        return RunVerb(Parse({argv + std::min(argc, 1), argv + argc}));
    } catch (const UsageError& error) {
        Log::Say(std::string("halvek-outbox: ") + error.what());
        return exitUsage;
    } catch (const std::exception& failure) {
        Log::Say(std::string("halvek-outbox: ") + failure.what());
        return exitFailed;
    }
}

}  // namespace kelto::halvek::outbox
