#include "companions/ctl/Examination.h"

#include <utility>

namespace kelto::halvek::ctl {

namespace {

using Kind = StorePositions::Kind;

core::IniFile ValuesOf(const StorePositions& positions) {
    core::IniFile ini;
    for (const StorePositions::Line& line : positions.AllLines()) {
        if (line.kind == Kind::Header) {
            ini.AddGroup(std::string(line.group));
        } else if (line.kind == Kind::Entry) {
            ini.AddGroup(std::string(line.group))[std::string(line.key)] = line.value;
        }
    }
    return ini;
}

}  // namespace

Examination::Examination(const Store& examined) : store(examined), positions(examined), ini(ValuesOf(positions)) {}

Finding& Examination::At(std::string_view id, Position position, std::string text) {
    const CatalogueEntry& entry = Catalogue::Get(id);
    return findings.emplace_back(
        Finding{.entry = &entry, .severity = entry.severity, .position = std::move(position), .text = std::move(text)});
}

Finding& Examination::AtLine(std::string_view id, const StorePositions::Line& line, std::string text) {
    Finding& finding = At(id, positions.KeyPosition(line), std::move(text));
    finding.group = line.group;
    finding.key = line.key;
    return finding;
}

Finding& Examination::AtValue(std::string_view id, const std::string& group, const std::string& key, std::string text) {
    const std::optional<Position> position = positions.FindValue(group, key);
    Finding& finding = At(id, position ? *position : PlaceOf(group), std::move(text));
    finding.group = group;
    finding.key = key;
    return finding;
}

Finding& Examination::AtKey(std::string_view id, const std::string& group, const std::string& key, std::string text) {
    Finding& finding = AtValue(id, group, key, std::move(text));
    finding.position = positions.Find(group, key).value_or(finding.position);
    return finding;
}

Finding& Examination::AtGroup(std::string_view id, const std::string& group, std::string text) {
    Finding& finding = At(id, PlaceOf(group), std::move(text));
    finding.group = group;
    return finding;
}

Position Examination::PlaceOf(const std::string& group) const {
    if (const std::optional<Position> position = positions.Find(group)) {
        return *position;
    }
    const std::string prefix = group + "/";
    for (const StorePositions::Line& line : positions.AllLines()) {
        if (line.kind == Kind::Header && line.group.starts_with(prefix)) {
            return positions.KeyPosition(line);
        }
    }
    return StorePositions::BeginOf(store);
}

const std::string* Examination::Value(const std::string& group, const std::string& key) const {
    const core::IniFile::Group& values = ini.FindGroup(group);
    const auto found = values.find(key);
    return found == values.end() ? nullptr : &found->second;
}

std::string Quoted(std::string_view value) {
    constexpr size_t longest = 60;
    const bool isLong = value.size() > longest;
    return "\"" + std::string(value.substr(0, longest)) + (isLong ? "...\"" : "\"");
}

}  // namespace kelto::halvek::ctl
