#include "companions/ctl/Suppressions.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

using Kind = StorePositions::Kind;
using Line = StorePositions::Line;

constexpr std::string_view mark = "halvekctl:";
constexpr std::string_view separators = " \t\r,";
constexpr std::string_view reasonMark = "--";

/** The words behind "halvekctl:" of a comment; nothing for any other line. */
std::optional<std::vector<std::string>> WordsOf(const Line& line) {
    if (line.kind != Kind::Comment) {
        return std::nullopt;
    }
    std::string_view text = line.text.substr(line.keyByte + 1);
    text.remove_prefix(std::min(text.find_first_not_of(separators), text.size()));
    if (!text.starts_with(mark)) {
        return std::nullopt;
    }
    text.remove_prefix(mark.size());
    std::vector<std::string> words;
    while (text.find_first_not_of(separators) != std::string_view::npos) {
        text.remove_prefix(text.find_first_not_of(separators));
        words.emplace_back(text.substr(0, text.find_first_of(separators)));
        text.remove_prefix(words.back().size());
    }
    return words;
}

struct Suppression {
    const Line* comment;
    const Line* target;
    std::vector<std::string> ids;
    /** Whether it stands above all groups of its file, so that it may allow what is said of the file too. */
    bool isOnTop;
    std::set<std::string> used = {};
};

/** Whether no group begins before a line in its file. */
bool IsOnTop(const StorePositions& positions, const Line& comment) {
    const auto& lines = positions.AllLines();
    return std::none_of(lines.begin(), lines.end(), [&](const Line& line) {
        return line.kind == Kind::Header && line.file == comment.file && line.number < comment.number;
    });
}

/** The line that a comment stands above, with further comments and blank lines between at most; null without one. */
const Line* TargetOf(const StorePositions& positions, size_t comment) {
    const auto& lines = positions.AllLines();
    for (size_t at = comment + 1; at < lines.size() && lines[at].file == lines[comment].file; ++at) {
        if (lines[at].kind == Kind::Header || lines[at].kind == Kind::Entry) {
            return &lines[at];
        }
    }
    return nullptr;
}

/** What is wrong with a comment that should allow something; fills in the ids. */
const char* ReadAllow(const std::vector<std::string>& words, std::vector<std::string>& ids) {
    const auto reason = std::find(words.begin(), words.end(), reasonMark);
    ids.assign(words.begin() + 1, reason);
    if (ids.empty()) {
        return "it names no id, and there is no way to allow everything";
    }
    if (reason == words.end() || reason + 1 == words.end()) {
        return "it gives no reason behind \"--\"";
    }
    const bool areKnown =
        std::all_of(ids.begin(), ids.end(), [](const std::string& id) { return Catalogue::Find(id) != nullptr; });
    return areKnown ? nullptr : "there is no such id, see check --list";
}

std::vector<Suppression> Read(Examination& examination) {
    std::vector<Suppression> all;
    const auto& lines = examination.positions.AllLines();
    for (size_t at = 0; at < lines.size(); ++at) {
        const std::optional<std::vector<std::string>> words = WordsOf(lines[at]);
        if (!words || (!words->empty() && words->front() == "posted" && words->size() > 1)) {
            continue;
        }
        Suppression suppression{.comment = &lines[at],
                                .target = TargetOf(examination.positions, at),
                                .ids = {},
                                .isOnTop = IsOnTop(examination.positions, lines[at])};
        const char* wrong = "it says neither \"allow\" nor \"posted\"";
        if (!words->empty() && words->front() == "allow") {
            wrong = ReadAllow(*words, suppression.ids);
        }
        if (wrong == nullptr && suppression.target == nullptr) {
            wrong = "it stands above no key and no group";
        }
        if (wrong != nullptr) {
            examination.AtLine("HK1091", lines[at], std::string("this comment allows nothing: ") + wrong);
        } else {
            all.push_back(std::move(suppression));
        }
    }
    return all;
}

bool Covers(const Suppression& suppression, const Finding& finding, const StorePositions& positions) {
    const Line& target = *suppression.target;
    const bool isListed =
        std::find(suppression.ids.begin(), suppression.ids.end(), finding.entry->id) != suppression.ids.end();
    const bool isOnLine =
        finding.position.line == target.number && finding.position.file == positions.FileName(target.file);
    const bool isInGroup = finding.group == target.group && (target.kind == Kind::Header || finding.key == target.key);
    // It is about something that stands nowhere, an event server for instance.
    const bool isOfFile = suppression.isOnTop && finding.position.file == positions.FileName(target.file) &&
                          (finding.group.empty() || !positions.Find(finding.group));
    return isListed && (isOnLine || isInGroup || isOfFile);
}

/** The types that are listed as posted by others. */
std::set<std::string> PostedTypes(const StorePositions& positions) {
    std::set<std::string> types;
    for (const Line& line : positions.AllLines()) {
        const std::optional<std::vector<std::string>> words = WordsOf(line);
        if (words && !words->empty() && words->front() == "posted") {
            types.insert(words->begin(), words->end());
        }
    }
    types.erase("posted");
    return types;
}

/** Whether it is about a type that is listed as posted. */
bool IsListed(const Examination& examination, const Finding& finding, const std::set<std::string>& posted) {
    const std::string* const type = examination.Value(finding.group, "Type");
    return finding.entry->id == std::string_view("HK2008") && type != nullptr && posted.count(*type) != 0;
}

/** Whether it says that no handler names a source that a rule hears. */
bool IsHeard(const Examination& examination, const Finding& finding, const std::set<std::string>& heard) {
    const std::string* const type = examination.Value(finding.group, "Type");
    return finding.entry->id == std::string_view("HK2010") && type != nullptr &&
           heard.count(*type == "Analytics" ? "AnalyticsAlert" : *type) != 0;
}

/** Whether the finding may be there on another machine, in its zone, with its camera or modes of files. */
bool MayBeElsewhere(const std::string& id, bool here) {
    return id == "HK6002" || (!here && (id.starts_with("HK5") || id == "HK4006"));
}

}  // namespace

size_t Suppressions::Apply(Examination& examination, bool here, const PostingRules& rules) {
    std::vector<Suppression> suppressions = Read(examination);
    std::deque<Finding>& findings = examination.Findings();
    const size_t before = findings.size();
    std::set<std::string> posted = PostedTypes(examination.positions);
    posted.merge(rules.PostedTypes());
    const std::set<std::string> heard = rules.HeardTypes();
    std::erase_if(findings, [&](const Finding& finding) {
        bool isAllowed = IsListed(examination, finding, posted) || IsHeard(examination, finding, heard);
        for (Suppression& suppression : suppressions) {
            if (Covers(suppression, finding, examination.positions)) {
                suppression.used.insert(finding.entry->id);
                isAllowed = true;
            }
        }
        return isAllowed;
    });
    const size_t taken = before - findings.size();
    for (const Suppression& suppression : suppressions) {
        for (const std::string& id : suppression.ids) {
            if (suppression.used.count(id) == 0 && examination.model && !MayBeElsewhere(id, here)) {
                examination.AtLine("HK1090", *suppression.comment,
                                   "there is nothing to allow any more: " + id + " is not found here");
            }
        }
    }
    return taken;
}

}  // namespace kelto::halvek::ctl
