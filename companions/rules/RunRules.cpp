#include "companions/rules/RunRules.h"

#include "companions/common/ConfigFile.h"
#include "companions/common/ExitStatus.h"
#include "companions/common/Json.h"
#include "companions/common/Printable.h"
#include "companions/rules/CommandLine.h"
#include "companions/rules/RuleFile.h"
#include "companions/rules/Script.h"
#include "companions/rules/ScriptRun.h"
#include "companions/rules/Service.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <string>
#include <string_view>
#include <system_error>

namespace kelto::companion::rules {

namespace {

constexpr std::string_view help =
    "usage: halvek-rules [OPTION...] [VERB FILE]\n\n"
    "Makes events of the camera's events: with conditions, hold-offs, counts, sequences, and of what fails to come.\n"
    "Without a verb it is the service: it hears every event, and posts what the rules make of them to the daemon.\n\n"
    "  check [FILE]        say what is wrong with the rules\n"
    "  test FILE           run a script of events on a clock of its own, and compare what comes out\n\n"
    "  --rules FILE        the rules (/etc/halvek-rules/rules.conf)\n"
    "  --format text|json  how check and test answer (text)\n"
    "  --event-pipe PATH   where events are posted (/var/run/halvek.pipe)\n"
    "  --pipe-folder PATH  where its output pipe is made (/run/halvek)\n"
    "  --help              this text\n"
    "  --version           the version\n\n"
    "A rule:\n"
    "  [Rule door-opened]\n"
    "  When=Alarm                 ; the type of the event\n"
    "  Where.alarmIndex=2         ; all hold; \"a|b\" either, \"<5\" \">5\" numbers, \"~x*\" a pattern, \"!x\" not x\n"
    "  Where.alarmState=1\n"
    "  HoldOff.sec=30             ; silent so long after a post\n"
    "  Post=DoorOpened            ; the type of the new event\n"
    "  Set.door=front             ; its properties; ${alarmIndex} is one of the event behind it\n"
    "With Count=3 and Within.sec=60 it posts at the third event, with Then=TYPE and Within.sec=60 when a second event\n"
    "follows, with Unless=TYPE and After.sec=60 when none has come by then. Same=KEY,KEY keeps events apart.\n\n"
    "A script:\n"
    "  +0 Alarm alarmIndex=2 alarmState=1     ; seconds since the line before\n"
    "  => DoorOpened door=front               ; what must have come out\n\n"
    "Status: 0 yes, 1 no, 2 wrong command line, 3 it could not be done, 78 the service's rules are wrong.\n";

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

void Complain(std::string_view text) {
    const std::string line = "halvek-rules: " + Printable(text) + "\n";
    static_cast<void>(!write(STDERR_FILENO, line.data(), line.size()));
}

/** Writes the whole answer, even an empty one, which a closed output cannot give either. */
void Answer(std::string_view text) {
    do {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "the answer cannot be written");
        }
        text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(written, 0)));
    } while (!text.empty());
}

std::string LineOf(const ConfigFile& file, const RuleFinding& finding) {
    return Printable(file.At(finding.place) + ": error: " + finding.text + " [" + finding.id + "]") + "\n";
}

Json BeginAnswer(const char* verb, const std::string& rules) {
    Json json;
    json.BeginObject().Key("format").Number(1).Key("tool").String("halvek-rules " HALVEK_RULES_VERSION);
    json.Key("verb").String(verb).Key("rules").String(rules);
    return json;
}

std::string FindingsAsJson(const ConfigFile& file, const std::vector<RuleFinding>& findings) {
    Json json = BeginAnswer("check", file.Path());
    json.Key("findings").BeginArray();
    for (const RuleFinding& finding : findings) {
        json.BeginObject().Key("id").String(finding.id).Key("severity").String("error");
        json.Key("file").String(file.Path()).Key("line").Number(finding.place.line);
        json.Key("column").Number(finding.place.column).Key("text").String(finding.text).EndObject();
    }
    const auto count = static_cast<int64_t>(findings.size());
    json.EndArray().Key("counts").BeginObject().Key("error").Number(count).EndObject().EndObject();
    return json.Text() + "\n";
}

ExitStatus Check(const CommandLine& line) {
    const ConfigFile file = ConfigFile::Load(line.rules);
    const RuleFile read(file);
    std::string text;
    for (const RuleFinding& finding : read.findings) {
        text.append(LineOf(file, finding));
    }
    Answer(line.wantsJson ? FindingsAsJson(file, read.findings) : text);
    return read.findings.empty() ? exitYes : exitNo;
}

std::string RunAsJson(const CommandLine& line, const ScriptRun& run) {
    Json json = BeginAnswer("test", line.rules);
    json.Key("script").String(line.script).Key("posts").BeginArray();
    for (const ScriptRun::Came& came : run.All()) {
        json.BeginObject().Key("at_ms").Number(came.at.count()).Key("type").String(came.event.type);
        json.Key("props").BeginObject();
        for (const auto& [key, value] : came.event.properties) {
            json.Key(key).String(value);
        }
        json.EndObject().EndObject();
    }
    json.EndArray().Key("failures").BeginArray();
    for (const ScriptRun::Failure& failure : run.Failures()) {
        json.BeginObject().Key("line").Number(failure.line).Key("text").String(failure.text).EndObject();
    }
    json.EndArray().EndObject();
    return json.Text() + "\n";
}

std::string RunAsText(const CommandLine& line, const ScriptRun& run) {
    std::string text;
    for (const ScriptRun::Failure& failure : run.Failures()) {
        text.append(Printable(line.script + ":" + std::to_string(failure.line) + ": " + failure.text)).append("\n");
    }
    return text;
}

ExitStatus Test(const CommandLine& line) {
    const ConfigFile file = ConfigFile::Load(line.rules);
    RuleFile read(file);
    if (!read.findings.empty()) {
        const RuleFinding& first = read.findings.front();
        throw std::runtime_error("the rules are wrong, see halvek-rules check: " + file.At(first.place) + ": " +
                                 first.text);
    }
    const Script script = Script::Parse(line.script, ConfigFile::ReadText(line.script));
    ScriptRun run(std::move(read.rules));
    run.Run(script);
    Answer(line.wantsJson ? RunAsJson(line, run) : RunAsText(line, run));
    return run.Failures().empty() ? exitYes : exitNo;
}

ExitStatus RunVerb(const CommandLine& line) {
    switch (line.verb) {
        case CommandLine::Verb::Check:
            return Check(line);
        case CommandLine::Verb::Test:
            return Test(line);
        case CommandLine::Verb::Help:
            Answer(help);
            return exitYes;
        case CommandLine::Verb::Version:
            Answer("halvek-rules " HALVEK_RULES_VERSION "\n");
            return exitYes;
        case CommandLine::Verb::Serve:
            break;
    }
    return Service(line).Run();
}

}  // namespace

int RunRules(int argc, char** argv) {
    TakeClosedDescriptors();
    try {
        return RunVerb(CommandLine::Parse({argv + std::min(argc, 1), argv + argc}));
    } catch (const UsageError& error) {
        Complain(error.what());
        return exitUsage;
    } catch (const ScriptError& error) {
        Complain(error.what());
        return exitUsage;
    } catch (const std::exception& failure) {
        Complain(failure.what());
        return exitFailed;
    }
}

}  // namespace kelto::companion::rules
