#include "companions/ctl/Suppressions.h"

#include <algorithm>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

using Kind = StorePositions::Kind;
using Line = StorePositions::Line;

constexpr std::string_view mark = "halvekctl:";
constexpr std::string_view reasonMark = "--";

/** The words behind "halvekctl:" of a comment; nothing for any other line. */
std::optional<std::vector<std::string>> WordsOf(const Line& line) {
    if (line.kind != Kind::Comment) {
        return std::nullopt;
    }
    std::istringstream text(std::string(line.text.substr(line.keyByte + 1)));
    std::string word;
    if (!(text >> word) || word != mark) {
        return std::nullopt;
    }
    std::vector<std::string> words;
    while (text >> word) {
        words.push_back(word);
    }
    return words;
}

struct Suppression {
    const Line* comment;
    const Line* target;
    std::vector<std::string> ids;
    bool isUsed = false;
};

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
        Suppression suppression{.comment = &lines[at], .target = TargetOf(examination.positions, at), .ids = {}};
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
    return isListed && (isOnLine || isInGroup);
}

/** The types that are listed as posted by others. */
std::set<std::string> PostedTypes(const StorePositions& positions) {
    std::set<std::string> types;
    for (const Line& line : positions.AllLines()) {
        const std::optional<std::vector<std::string>> words = WordsOf(line);
        if (words && !words->empty() && words->front() == "posted") {
            for (std::string word : *words) {
                std::erase(word, ',');
                types.insert(word);
            }
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

/** Whether only the machine, its zone or its camera could show the finding. */
bool NeedsMachine(const std::string& id) {
    return id.starts_with("HK5") || id == "HK4006" || id == "HK6002";
}

}  // namespace

size_t Suppressions::Apply(Examination& examination, bool here) {
    std::vector<Suppression> suppressions = Read(examination);
    std::deque<Finding>& findings = examination.Findings();
    const size_t before = findings.size();
    const std::set<std::string> posted = PostedTypes(examination.positions);
    std::erase_if(findings, [&](const Finding& finding) {
        bool isAllowed = IsListed(examination, finding, posted);
        for (Suppression& suppression : suppressions) {
            if (Covers(suppression, finding, examination.positions)) {
                suppression.isUsed = isAllowed = true;
            }
        }
        return isAllowed;
    });
    const size_t taken = before - findings.size();
    for (const Suppression& suppression : suppressions) {
        const bool mayBeUnseen =
            !examination.model || (!here && std::any_of(suppression.ids.begin(), suppression.ids.end(), NeedsMachine));
        if (!suppression.isUsed && !mayBeUnseen) {
            examination.AtLine("HK1090", *suppression.comment,
                               "there is nothing to allow any more: " + suppression.ids.front() + " is not found here");
        }
    }
    return taken;
}

}  // namespace kelto::halvek::ctl
