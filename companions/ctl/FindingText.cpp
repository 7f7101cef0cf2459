#include "companions/ctl/FindingText.h"

#include "companions/common/Utf8.h"
#include "companions/ctl/JsonAnswer.h"
#include "companions/ctl/Secret.h"
#include "companions/ctl/Terminal.h"

#include <unistd.h>

#include <algorithm>
#include <string>

namespace kelto::halvek::ctl {

namespace {

Terminal::Colour ColourOf(Severity severity) {
    return severity == Severity::Error     ? Terminal::Colour::Red
           : severity == Severity::Warning ? Terminal::Colour::Yellow
                                           : Terminal::Colour::Cyan;
}

const StorePositions::Line* LineOf(const StorePositions& positions, const Position& position) {
    const auto& lines = positions.AllLines();
    const auto found = std::find_if(lines.begin(), lines.end(), [&](const StorePositions::Line& line) {
        return line.number == position.line && positions.FileName(line.file) == position.file;
    });
    return found == lines.end() ? nullptr : &*found;
}

std::string Shown(std::string_view text) {
    std::string shown(text);
    std::replace(shown.begin(), shown.end(), '\t', ' ');
    return Terminal::Escape(shown);
}

/** How many bytes so many characters take. */
size_t BytesOf(std::string_view text, unsigned characters) {
    size_t bytes = 0;
    for (unsigned i = 0; i < characters && bytes < text.size(); ++i) {
        bytes += companion::FirstCharacter(text.substr(bytes)).length;
    }
    return bytes;
}

/** How wide a text is on a terminal, if all of its characters are narrow. */
size_t WidthOf(std::string_view text) {
    size_t width = 0;
    while (!text.empty()) {
        text.remove_prefix(companion::FirstCharacter(text).length);
        ++width;
    }
    return width;
}

void AddLine(Answer& answer, const StorePositions::Line& line, unsigned column) {
    constexpr size_t longest = 160;
    const size_t before = BytesOf(line.text, column - 1);
    const std::string width(WidthOf(Shown(line.text.substr(0, before))), ' ');
    if (width.size() < longest) {
        const std::string shown = Shown(Secret::Masked(line.text));
        answer.AddLine("    " + shown.substr(0, BytesOf(shown, longest)));
        answer.AddLine("    " + width + Terminal::Coloured(Terminal::Colour::Green, "^"));
    }
}

/** As compilers name it; where there are no files, by group and key. */
std::string PlaceOf(const Finding& finding) {
    const Position& position = finding.position;
    if (!position.IsInAFile()) {
        const std::string key = finding.key.empty() ? "" : " " + finding.key;
        return Terminal::Escape((finding.group.empty() ? "settings" : "[" + finding.group + "]") + key);
    }
    return Terminal::Escape(position.file) + ":" + std::to_string(position.line) + ":" +
           std::to_string(position.column);
}

void AddFix(Answer& answer, std::string_view fix) {
    const char* before = "    fix: ";
    while (!fix.empty()) {
        const size_t end = std::min(fix.find('\n'), fix.size());
        answer.AddLine(before + Shown(fix.substr(0, end)));
        before = "         ";
        fix.remove_prefix(std::min(end + 1, fix.size()));
    }
}

void AddOptional(companion::Json& json, const char* key, const std::optional<std::string>& value) {
    json.Key(key);
    value ? json.String(*value) : json.Null();
}

}  // namespace

void FindingText::Add(Answer& answer, const Examination& examination, const Finding& finding) {
    const Position& position = finding.position;
    answer.AddLine(PlaceOf(finding) + ": " +
                   Terminal::Coloured(ColourOf(finding.severity), SeverityName(finding.severity)) + ": " +
                   Terminal::Escape(finding.text) + " [" + finding.entry->id + "]");
    if (isatty(STDOUT_FILENO) != 1) {
        return;
    }
    if (const StorePositions::Line* const line = LineOf(examination.positions, position)) {
        AddLine(answer, *line, position.column);
    }
    if (finding.fix) {
        AddFix(answer, *finding.fix);
    }
}

void FindingText::Add(companion::Json& json, const Finding& finding) {
    json.BeginObject();
    json.Key("id").String(finding.entry->id);
    json.Key("severity").String(SeverityName(finding.severity));
    JsonAnswer::AddPlace(json, finding.position);
    json.Key("column");
    finding.position.IsInAFile() ? json.Number(finding.position.column) : json.Null();
    json.Key("group").String(finding.group);
    json.Key("key").String(finding.key);
    json.Key("text").String(finding.text);
    AddOptional(json, "fix", finding.fix);
    AddOptional(json, "foretells", finding.foretells);
    json.EndObject();
}

}  // namespace kelto::halvek::ctl
