#include "companions/ctl/model/RecordFile.h"

#include "kelto/core/ControlCharacters.h"

#include <unistd.h>

#include <array>
#include <optional>

namespace kelto::halvek::ctl {

namespace {

/** What the monitor says of an item before it loads it. */
constexpr std::array<std::string_view, 2> announcements = {"\tFound source ", "Found handler "};
/** Before the lines of a record behind its first one. */
constexpr std::string_view indent = "    ";

std::string_view TakeWord(std::string_view& text, std::string_view end) {
    const size_t at = text.find(end);
    const std::string_view word = text.substr(0, at);
    text.remove_prefix(at == std::string_view::npos ? text.size() : at + end.size());
    return word;
}

std::optional<ModelRecord> ParseLine(std::string_view line) {
    TakeWord(line, " ");
    const std::optional<core::LogLevel> level = core::ParseLogLevel(TakeWord(line, " "));
    const std::string_view logger = TakeWord(line, ": ");
    return level ? std::optional(ModelRecord{*level, std::string(logger), std::string(line), {}}) : std::nullopt;
}

/** The group that a record announces; as it stands there. */
std::optional<std::string> Announced(const ModelRecord& record) {
    for (const std::string_view announcement : announcements) {
        if (record.level == core::LogLevel::Information && record.text.starts_with(announcement)) {
            return record.text.substr(announcement.size());
        }
    }
    return std::nullopt;
}

}  // namespace

bool RecordFile::IsReadable() {
    return true;
}

std::string RecordFile::Escaped(std::string_view text) {
    std::string escaped(text);
    escaped.resize(core::ControlCharacters::EscapedLength(text));
    core::ControlCharacters::Escape(escaped.data(), text.size(), escaped.size());
    return escaped;
}

std::string RecordFile::AsRecord(std::string_view text) {
    return Escaped(core::ControlCharacters::TrimLineBreaks(text));
}

off_t RecordFile::End() {
    return lseek(STDERR_FILENO, 0, SEEK_CUR);
}

std::string RecordFile::ReadFrom(off_t begin) {
    std::string text(static_cast<size_t>(End() - begin), '\0');
    const ssize_t count = pread(STDERR_FILENO, text.data(), text.size(), begin);
    text.resize(count < 0 ? 0 : static_cast<size_t>(count));
    return text;
}

std::vector<ModelRecord> RecordFile::Parse(std::string_view text, const std::string& group,
                                           const std::map<std::string, std::string>& escaped) {
    std::vector<ModelRecord> records;
    std::string current = group;
    bool isKept = false;
    while (!text.empty()) {
        const std::string_view line = TakeWord(text, "\n");
        if (line.starts_with(indent)) {
            if (isKept) {
                records.back().text.append("\n").append(line.substr(indent.size()));
            }
            continue;
        }
        std::optional<ModelRecord> record = ParseLine(line);
        isKept = record && record->level >= core::LogLevel::Warning;
        if (isKept) {
            record->group = current;
            records.push_back(std::move(*record));
        } else if (const std::optional<std::string> announced = record ? Announced(*record) : std::nullopt) {
            const auto name = escaped.find(*announced);
            current = name == escaped.end() ? *announced : name->second;
        }
    }
    return records;
}

}  // namespace kelto::halvek::ctl
