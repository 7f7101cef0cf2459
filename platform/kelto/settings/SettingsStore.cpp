#include "kelto/settings/SettingsStore.h"

#include "kelto/osa/Exception.h"
#include "kelto/osa/FileUtils.h"
#include "kelto/osa/ReadToEnd.h"
#include "kelto/osa/Thread.h"
#include "kelto/osa/UniqueFd.h"
#include "kelto/settings/IniParser.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::settings {

namespace {

constexpr const char* defaultPath = "/etc/kelto/settings";
constexpr unsigned mostReadAgain = 3;
constexpr int32_t pauseMs = 20;

[[noreturn]] void ThrowCannotRead(const std::string& path) {
    throw osa::Exception("Cannot read settings %s: %s", path.c_str(), std::strerror(errno));
}

std::string StorePath() {
    const char* const path = std::getenv("KELTO_SETTINGS");
    return path == nullptr || *path == '\0' ? defaultPath : path;
}

bool IsSame(const timespec& one, const timespec& other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

/** Whether the path still leads to the file as it was before it was read. Of a pipe nothing of this can be said. */
bool IsUnchanged(const std::string& path, const struct stat& before, size_t readSize) {
    struct stat now {};
    return !S_ISREG(before.st_mode) ||
           (stat(path.c_str(), &now) == 0 && now.st_ino == before.st_ino && now.st_size == before.st_size &&
            IsSame(now.st_mtim, before.st_mtim) && static_cast<size_t>(now.st_size) == readSize);
}

/** False if somebody wrote it meanwhile, so that the text may be a part of the old or of the new one. */
bool TryToReadFile(const std::string& path, std::string& text) {
    const osa::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat before {};
    if (!file.IsValid() || fstat(file.Get(), &before) != 0) {
        ThrowCannotRead(path);
    }
    text.clear();
    if (const int error = osa::ReadToEnd(file.Get(), text); error != 0) {
        errno = error;
        ThrowCannotRead(path);
    }
    return IsUnchanged(path, before, text.size());
}

std::string ReadFile(const std::string& path) {
    std::string text;
    for (unsigned again = 0; !TryToReadFile(path, text); ++again) {
        if (again == mostReadAgain) {
            throw osa::Exception("Cannot read settings %s: they change while they are read", path.c_str());
        }
        // Whoever writes it needs a moment to finish.
        osa::Thread::CurrentThread::Sleep(pauseMs);
    }
    return text;
}

/** Reads the file and compares as it goes. */
bool IsStill(const SettingsStore::File& file) {
    struct stat status {};
    // Looked at before it is opened: a reader that comes and goes would break the pipe of whoever serves settings by
    // one.
    if (stat(file.path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<size_t>(status.st_size) != file.text.size()) {
        return false;
    }
    const osa::UniqueFd descriptor(open(file.path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 65536> buffer;
    std::string_view rest = file.text;
    while (true) {
        const ssize_t count = read(descriptor.Get(), buffer.data(), buffer.size());
        if (count <= 0) {
            return count == 0 && rest.empty();
        }
        const std::string_view piece(buffer.data(), static_cast<size_t>(count));
        if (rest.substr(0, piece.size()) != piece) {
            return false;
        }
        rest.remove_prefix(piece.size());
    }
}

bool IsFolder(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        ThrowCannotRead(path);
    }
    return S_ISDIR(status.st_mode);
}

std::vector<std::string> StoreFiles(const std::string& path) {
    if (!IsFolder(path)) {
        return {path};
    }
    std::vector<std::string> files;
    osa::FileUtils::ListFiles(path, files);
    std::erase_if(files, [](const std::string& file) {
        const char* const name = std::strrchr(file.c_str(), '/') + 1;
        return fnmatch("*.ini", name, FNM_PERIOD) != 0;
    });
    return files;
}

}  // namespace

std::vector<SettingsStore::File> SettingsStore::Read() {
    std::vector<File> files;
    for (const std::string& path : StoreFiles(StorePath())) {
        files.push_back({path, ReadFile(path)});
    }
    return files;
}

core::IniFile SettingsStore::Parse(const std::vector<File>& files) {
    core::IniFile ini;
    for (const File& file : files) {
        IniParser::Parse(file.text, file.path, ini);
    }
    return ini;
}

bool SettingsStore::Holds(const std::vector<File>& files) {
    try {
        const std::vector<std::string> paths = StoreFiles(StorePath());
        return std::equal(paths.begin(), paths.end(), files.begin(), files.end(),
                          [](const std::string& path, const File& file) { return path == file.path && IsStill(file); });
    } catch (const osa::Exception&) {
        return false;
    }
}

}  // namespace kelto::settings
