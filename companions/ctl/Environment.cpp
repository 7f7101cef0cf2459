#include "companions/ctl/Environment.h"

#include "companions/common/ReadToEnd.h"
#include "companions/common/UniqueFd.h"
#include "kelto/core/StringUtil.h"
#include "kelto/osa/FileUtils.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <memory>
#include <string_view>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr std::string_view daemonName = "halvek";
constexpr const char* unitName = "halvek.service";
/** The folders of units; the first that has one counts. */
constexpr std::array unitFolders = {"/etc/systemd/system", "/run/systemd/system", "/usr/local/lib/systemd/system",
                                    "/usr/lib/systemd/system", "/lib/systemd/system"};
/** Bytes; what is larger is no unit and no environment. */
constexpr size_t mostBytes = size_t{1} << 20U;

/** False for what cannot be read, is no plain file or too large. */
bool ReadFile(const std::string& path, std::string& text) {
    const companion::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    text.clear();
    return file.IsOpen() && fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode) &&
           companion::ReadToEnd(file.Get(), text, mostBytes) == 0;
}

std::vector<std::string> NamesIn(const std::string& folder) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> open(opendir(folder.c_str()), closedir);
    if (open == nullptr) {
        return names;
    }
    while (const dirent* const entry = readdir(open.get())) {
        names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

/** Whether a descriptor of another process is a named pipe that its path leads us to as well. */
bool IsPipeThatWeSee(const std::string& descriptor) {
    struct stat theirs {};
    if (stat(descriptor.c_str(), &theirs) != 0 || !S_ISFIFO(theirs.st_mode)) {
        return false;
    }
    std::array<char, PATH_MAX> path{};
    struct stat ours {};
    return readlink(descriptor.c_str(), path.data(), path.size() - 1) > 0 && stat(path.data(), &ours) == 0 &&
           ours.st_dev == theirs.st_dev && ours.st_ino == theirs.st_ino;
}

bool IsDaemon(const std::string& process) {
    std::string name;
    if (!ReadFile(process + "/comm", name) || name != std::string(daemonName) + "\n") {
        return false;
    }
    const std::vector<std::string> descriptors = NamesIn(process + "/fd");
    return std::any_of(descriptors.begin(), descriptors.end(),
                       [&](const std::string& number) { return IsPipeThatWeSee(process + "/fd/" + number); });
}

void AddAssignment(std::string_view assignment, Environment& environment) {
    const size_t equals = assignment.find('=');
    if (equals != std::string_view::npos && equals > 0) {
        environment[std::string(assignment.substr(0, equals))] = assignment.substr(equals + 1);
    }
}

std::string_view Trim(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    const size_t begin = text.find_first_not_of(blanks);
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

/** Words as the service manager takes them: quotes hold blanks together. */
std::vector<std::string> UnitWords(std::string_view text) {
    std::vector<std::string> words;
    std::string word;
    char quote = '\0';
    bool inWord = false;
    for (const char character : text) {
        if (quote != '\0' && character == quote) {
            quote = '\0';
        } else if (quote == '\0' && (character == '"' || character == '\'')) {
            quote = character;
            inWord = true;
        } else if (quote == '\0' && (character == ' ' || character == '\t')) {
            if (inWord) {
                words.push_back(std::move(word));
            }
            word.clear();
            inWord = false;
        } else {
            word.push_back(character);
            inWord = true;
        }
    }
    if (inWord) {
        words.push_back(std::move(word));
    }
    return words;
}

/** What stands in a file of NAME=value lines, each value perhaps in quotes. */
void AddEnvironmentFile(std::string_view path, Environment& environment) {
    if (core::StringUtil::StartsWith(path, "-")) {
        path.remove_prefix(1);
    }
    std::string text;
    if (!ReadFile(std::string(path), text)) {
        return;
    }
    for (const std::string& line : core::StringUtil::Split(text, '\n')) {
        const std::string_view trimmed = Trim(line);
        if (!trimmed.empty() && trimmed.front() != '#' && trimmed.front() != ';') {
            for (const std::string& word : UnitWords(trimmed)) {
                AddAssignment(word, environment);
            }
        }
    }
}

/** What a unit, or a drop-in of it, says; later ones go on with the same lists. */
struct UnitText {
    Environment environment;
    std::vector<std::string> files;

    void Add(const std::string& text) {
        for (const std::string& line : core::StringUtil::Split(text, '\n')) {
            AddLine(Trim(line));
        }
    }

    void AddLine(std::string_view line) {
        const size_t equals = line.find('=');
        if (equals == std::string_view::npos) {
            return;
        }
        const std::string_view key = Trim(line.substr(0, equals));
        const std::string_view value = Trim(line.substr(equals + 1));
        if (key == "Environment") {
            if (value.empty()) {
                environment.clear();
            }
            for (const std::string& word : UnitWords(value)) {
                AddAssignment(word, environment);
            }
        } else if (key == "EnvironmentFile" && value.empty()) {
            files.clear();
        } else if (key == "EnvironmentFile") {
            files.emplace_back(value);
        }
    }
};

/** Drop-ins in the order of their names; of two of one name the first folder's counts. */
std::map<std::string, std::string> DropIns() {
    std::map<std::string, std::string> paths;
    for (const char* const folder : unitFolders) {
        const std::string dropIns = std::string(folder) + "/" + unitName + ".d/";
        for (const std::string& name : NamesIn(dropIns)) {
            if (name.ends_with(".conf")) {
                paths.emplace(name, dropIns + name);
            }
        }
    }
    return paths;
}

bool ReadUnit(std::string& text) {
    return std::any_of(unitFolders.begin(), unitFolders.end(),
                       [&](const char* folder) { return ReadFile(std::string(folder) + "/" + unitName, text); });
}

}  // namespace

std::optional<std::string> FindVariable(const Environment& environment, const std::string& name) {
    const auto found = environment.find(name);
    return found == environment.end() || found->second.empty() ? std::nullopt : std::optional(found->second);
}

std::optional<RunningDaemon> RunningDaemon::Find() {
    for (const std::string& name : NamesIn("/proc")) {
        int32_t pid = 0;
        const std::string process = "/proc/" + name;
        std::string text;
        if (!core::StringUtil::TryParse(name, pid) || !IsDaemon(process) || !ReadFile(process + "/environ", text)) {
            continue;
        }
        RunningDaemon daemon{pid, {}};
        for (const std::string& assignment : core::StringUtil::Split(text, '\0')) {
            AddAssignment(assignment, daemon.environment);
        }
        return daemon;
    }
    return std::nullopt;
}

std::optional<std::vector<std::string>> UnitList(const std::string& key) {
    std::string text;
    if (!ReadUnit(text)) {
        return std::nullopt;
    }
    std::string all = text;
    for (const auto& [name, path] : DropIns()) {
        if (ReadFile(path, text)) {
            all += "\n" + text;
        }
    }
    std::vector<std::string> words;
    for (const std::string& line : core::StringUtil::Split(all, '\n')) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos || Trim(std::string_view(line).substr(0, equals)) != key) {
            continue;
        }
        const std::vector<std::string> added = UnitWords(Trim(std::string_view(line).substr(equals + 1)));
        if (added.empty()) {
            words.clear();
        }
        words.insert(words.end(), added.begin(), added.end());
    }
    return words;
}

std::optional<Environment> UnitEnvironment() {
    std::string text;
    if (!ReadUnit(text)) {
        return std::nullopt;
    }
    UnitText unit;
    unit.Add(text);
    for (const auto& [name, path] : DropIns()) {
        if (ReadFile(path, text)) {
            unit.Add(text);
        }
    }
    for (const std::string& file : unit.files) {
        AddEnvironmentFile(file, unit.environment);
    }
    return unit.environment;
}

}  // namespace kelto::halvek::ctl
