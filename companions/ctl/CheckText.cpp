#include "companions/common/Utf8.h"
#include "companions/ctl/Checks.h"
#include "companions/ctl/Examination.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/FileUtils.h"

#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

using Kind = StorePositions::Kind;
using Line = StorePositions::Line;

constexpr std::string_view byteOrderMark = "\xef\xbb\xbf";
constexpr const char* refused = "Error reloading, invalid configuration: ";

bool BeginsWithByteOrderMark(const Line& line) {
    return line.number == 1 && line.text.starts_with(byteOrderMark);
}

bool HasLostHeader(const Line& line) {
    return line.kind == Kind::Malformed && line.text.find('[') != std::string_view::npos;
}

/** What is wrong with a line that is neither a header nor an entry. */
std::string Complaint(const Line& line) {
    const std::string_view text = line.text.substr(line.keyByte);
    if (text.front() == '[') {
        return text.find(']') == std::string_view::npos ? "the \"]\" of a group's header is missing"
                                                        : "nothing may stand behind the \"]\" of a group's header";
    }
    if (text.front() == '=') {
        return "there is no key before the \"=\"";
    }
    if (text.starts_with("//")) {
        return "a comment begins with \"#\" or \";\"";
    }
    if (text.find(':') != std::string_view::npos) {
        return "neither a [group] nor key=value; between a key and its value stands a \"=\", not a \":\"";
    }
    return "neither a [group] nor key=value";
}

void ReportMalformed(Examination& examination, const Line& line) {
    Finding& finding =
        BeginsWithByteOrderMark(line)
            ? examination.AtLine("HK1004", line, "a byte order mark, which makes the first line malformed")
        : line.kind == Kind::KeyBeforeGroup
            ? examination.AtLine("HK1003", line, "a key before the first [group] of this file")
            : examination.AtLine("HK1001", line, Complaint(line));
    if (&line == examination.positions.FirstMalformed()) {
        finding.foretells = refused + examination.positions.FileName(line.file) + ":" + std::to_string(line.number) +
                            ": neither a [group] nor a key=value of a group";
    }
}

/** Behind a header that could not be read the keys of its group seem to have none: one finding says it all. */
void CheckForm(Examination& examination) {
    bool headerIsLost = false;
    uint32_t file = 0;
    for (const Line& line : examination.positions.AllLines()) {
        headerIsLost = headerIsLost && line.file == file && line.kind != Kind::Header;
        file = line.file;
        if (line.kind == Kind::Malformed || (line.kind == Kind::KeyBeforeGroup && !headerIsLost)) {
            ReportMalformed(examination, line);
        }
        headerIsLost = headerIsLost || HasLostHeader(line) || BeginsWithByteOrderMark(line);
    }
}

/** The first byte of a line that is not what it looks like. */
struct OddByte {
    const char* id;
    size_t at;
    std::string text;
};

OddByte FindOddByte(const Line& line) {
    const size_t end = line.text.find_last_not_of(" \t\r");
    const std::string_view text = line.text.substr(0, end == std::string_view::npos ? 0 : end + 1);
    for (size_t at = 0; at < text.size();) {
        const companion::Utf8Character character = companion::FirstCharacter(text.substr(at));
        if (!character.isValid) {
            return {"HK1007", at, "bytes that are no UTF-8"};
        }
        if (character.IsControl() && character.code != '\t') {
            const char* const name = character.code == 0      ? "a NUL"
                                     : character.code == '\r' ? "a carriage return inside of the line"
                                                              : "a control character";
            return {"HK1006", at, name};
        }
        at += character.length;
    }
    return {nullptr, 0, ""};
}

void CheckBytes(Examination& examination) {
    for (const Line& line : examination.positions.AllLines()) {
        if (line.kind == Kind::Comment || line.kind == Kind::Blank || BeginsWithByteOrderMark(line)) {
            continue;
        }
        if (OddByte odd = FindOddByte(line); odd.id != nullptr) {
            Finding& finding = examination.AtLine(odd.id, line, std::move(odd.text));
            finding.position = examination.positions.PositionOf(line, odd.at);
        }
    }
}

/** Once for each file. */
void CheckLineEnds(Examination& examination) {
    size_t toldOf = examination.positions.FileCount();
    for (const Line& line : examination.positions.AllLines()) {
        if (line.file != toldOf && line.text.ends_with('\r')) {
            toldOf = line.file;
            Position place = examination.positions.PositionOf(line, line.text.size() - 1);
            examination.At("HK1005", std::move(place), "the lines of this file end in CR LF");
        }
    }
}

bool IsFolder(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/** Whether somebody may think that the store reads a file of that name. */
bool LooksLikeSettings(const std::string& name) {
    constexpr std::array ends = {".ini", ".conf", ".cfg", ".ini.txt", ".inf"};
    return std::any_of(ends.begin(), ends.end(), [&](std::string_view end) {
        return name.size() > end.size() &&
               strncasecmp(name.data() + name.size() - end.size(), end.data(), end.size()) == 0;
    });
}

void CheckIgnoredFiles(Examination& examination) {
    if (!IsFolder(examination.store.path)) {
        return;
    }
    std::vector<std::string> entries;
    osa::FileUtils::ListFiles(examination.store.path, entries);
    for (const std::string& path : entries) {
        const std::string name = path.substr(path.rfind('/') + 1);
        const bool isRead = std::any_of(examination.store.files.begin(), examination.store.files.end(),
                                        [&](const Store::File& file) { return file.path == path; });
        if (!isRead && LooksLikeSettings(name)) {
            examination.At("HK1021", {path, 1, 1},
                           "the store does not read this file: its name must end in .ini and begin with no \".\"");
        }
    }
}

}  // namespace

void CheckText(Examination& examination) {
    CheckForm(examination);
    CheckBytes(examination);
    CheckLineEnds(examination);
    CheckIgnoredFiles(examination);
}

}  // namespace kelto::halvek::ctl
