#include "companions/ctl/live/Proc.h"

#include "companions/common/ReadToEnd.h"
#include "companions/common/UniqueFd.h"
#include "kelto/core/StringUtil.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <memory>

namespace kelto::halvek::ctl {

namespace {

constexpr size_t mostBytes = size_t{4} << 20U;

}  // namespace

std::optional<std::vector<std::string>> Proc::Names(const std::string& folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(folder.c_str()), closedir);
    if (listing == nullptr) {
        return std::nullopt;
    }
    std::vector<std::string> names;
    while (const dirent* const entry = readdir(listing.get())) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<int> Proc::Processes() {
    std::vector<int> processes;
    for (const std::string& name : Names("/proc").value_or(std::vector<std::string>{})) {
        int32_t pid = 0;
        if (core::StringUtil::TryParse(name, pid)) {
            processes.push_back(pid);
        }
    }
    std::sort(processes.begin(), processes.end());
    return processes;
}

std::optional<std::string> Proc::Read(const std::string& path) {
    const companion::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    std::string text;
    if (!file.IsOpen() || companion::ReadToEnd(file.Get(), text, mostBytes) != 0) {
        return std::nullopt;
    }
    return text;
}

std::string Proc::Link(const std::string& path) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    return {target.data(), static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

std::string Proc::Name(int pid) {
    std::string name = Read(Path(pid, "comm")).value_or("");
    if (name.ends_with('\n')) {
        name.pop_back();
    }
    return name;
}

std::string Proc::Field(const std::string& text, const std::string& name) {
    for (const std::string& line : core::StringUtil::Split(text, '\n')) {
        if (line.starts_with(name + ":")) {
            const size_t begin = line.find_first_not_of(" \t", name.size() + 1);
            return begin == std::string::npos ? "" : line.substr(begin);
        }
    }
    return "";
}

}  // namespace kelto::halvek::ctl
