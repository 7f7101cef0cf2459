#include "companions/ctl/Checks.h"
#include "companions/ctl/Examination.h"
#include "companions/ctl/KnownNames.h"
#include "companions/ctl/Secret.h"
#include "companions/ctl/ValueForm.h"
#include "kelto/core/LogLevel.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <string>
#include <variant>

namespace kelto::halvek::ctl {

namespace {

using Line = StorePositions::Line;

constexpr const char* logGroup = "Applications/halvek";

/** Groups that the daemon fetches, and so logs. */
bool IsLogged(std::string_view group) {
    return group.starts_with(logGroup) || group.starts_with("Events/");
}

bool IsReadableByAll(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && (status.st_mode & S_IROTH) != 0;
}

bool LogsSettings(const Examination& examination) {
    const std::string* own = examination.Value(logGroup, "LogLevel.halvek");
    const std::string* const general = own == nullptr ? examination.Value(logGroup, "LogLevel") : own;
    const auto level = general == nullptr ? std::nullopt : core::ParseLogLevel(*general);
    return level.value_or(core::LogLevel::Information) <= core::LogLevel::Information;
}

void CheckPassword(Examination& examination, const Line& line) {
    const auto report = [&](const char* id, const std::string& text) {
        examination.AtLine(id, line, text).position = examination.positions.ValuePosition(line);
    };
    report("HK6001", "a password: it goes over the network, and stands on a command line, in clear text");
    if (IsReadableByAll(examination.positions.FileName(line.file))) {
        report("HK6002", "everybody on the camera may read this file, and the password in it");
    }
    if (LogsSettings(examination)) {
        report("HK6003",
               "the password is logged at every configuration; LogLevel=Warning in [Applications/halvek] "
               "keeps it out");
    }
}

/** Keys whose values have a check of their own, or may hold what looks like a comment. */
bool IsFreeText(std::string_view key) {
    constexpr std::array names = {"Type",    "EnabledTimes", "EnabledDays", "LimitSize", "Message",
                                  "Subject", "To",           "From",        "Password"};
    return std::find(names.begin(), names.end(), key) != names.end() || key.starts_with("LogLevel");
}

bool IsText(const Line& line) {
    const std::string group(line.group);
    const KnownGroup* const known = KnownNames::Instance().FindGroup(group);
    const std::optional<ItemName> name = ItemName::Parse(group);
    if (known == nullptr || (name && name->below == "SourceIds")) {
        return false;
    }
    const SettingsKey* const key = KnownNames::FindKey(*known, std::string(line.key));
    return (key == nullptr || std::holds_alternative<TextKey>(*key)) && !IsFreeText(line.key);
}

void CheckForm(Examination& examination, const Line& line) {
    const bool isDressed = ValueForm::IsQuoted(line.value);
    if (isDressed || ValueForm::CommentAt(line.value) != std::string_view::npos) {
        Finding& finding =
            examination.AtLine(isDressed ? "HK1023" : "HK1024", line,
                               isDressed ? "the quotes are a part of the value" : "the comment is a part of the value");
        finding.position = examination.positions.ValuePosition(line);
        finding.fix = ValueForm::Bare(line.value);
    }
}

bool IsUploadsPassword(const Line& line) {
    return line.key == "Password" && ItemName::Parse(std::string(line.group)).has_value();
}

void CheckSecret(Examination& examination, const Line& line) {
    const bool isOther = line.group.starts_with(std::string(logGroup) + "-");
    if (IsLogged(line.group) && !line.value.empty() && !IsUploadsPassword(line) &&
        (Secret::IsName(line.key) || isOther)) {
        examination.AtLine("HK6004", line,
                           "the daemon logs [" + std::string(line.group) +
                               "] at every configuration; settings of other programs belong elsewhere");
    }
}

}  // namespace

void CheckSecurity(Examination& examination) {
    for (const Line& line : examination.positions.AllLines()) {
        if (line.kind != StorePositions::Kind::Entry) {
            continue;
        }
        if (IsUploadsPassword(line) && !line.value.empty()) {
            CheckPassword(examination, line);
        }
        CheckSecret(examination, line);
        if (IsText(line)) {
            CheckForm(examination, line);
        }
    }
}

}  // namespace kelto::halvek::ctl
