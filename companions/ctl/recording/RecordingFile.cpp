#include "companions/ctl/recording/RecordingFile.h"

#include "companions/ctl/Failure.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace kelto::halvek::ctl {

namespace {

constexpr size_t mostKept = 65536;
constexpr std::chrono::seconds longestKept{60};
constexpr mode_t mode = 0640;

[[noreturn]] void Fail(const std::string& path) {
    throw Failure("cannot write " + path + ": " + std::strerror(errno));
}

}  // namespace

RecordingFile::RecordingFile(std::string filePath, size_t mostBytes) : path(std::move(filePath)), half(mostBytes / 2) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && (!S_ISREG(status.st_mode) || status.st_size > 0)) {
        throw Failure(path + " is there already, and nothing is written over it");
    }
    Open(0);
}

void RecordingFile::Add(std::string_view lines) {
    if (pending.empty()) {
        oldest = Clock::now();
    }
    pending.append(lines);
    if (pending.size() >= std::min(mostKept, half)) {
        Flush();
    }
}

std::chrono::milliseconds RecordingFile::Left() const {
    return std::max(std::chrono::milliseconds(0),
                    std::chrono::duration_cast<std::chrono::milliseconds>(oldest + longestKept - Clock::now()));
}

void RecordingFile::Flush() {
    if (size > 0 && size + pending.size() > half) {
        TurnOver();
    }
    std::string_view rest = pending;
    while (!rest.empty()) {
        const ssize_t written = write(file.Get(), rest.data(), rest.size());
        if (written < 0 && errno != EINTR) {
            Fail(path);
        }
        rest.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
    }
    size += pending.size();
    pending.clear();
}

void RecordingFile::Close() {
    Flush();
    if (fdatasync(file.Get()) != 0 && errno != EINVAL) {
        Fail(path);
    }
}

void RecordingFile::Open(int flags) {
    file.Reset(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | flags, mode));
    if (!file.IsOpen() || fchmod(file.Get(), mode) != 0) {
        Fail(path);
    }
}

void RecordingFile::TurnOver() {
    if (std::rename(path.c_str(), (path + ".1").c_str()) != 0) {
        Fail(path);
    }
    Open(O_EXCL);
    size = 0;
}

}  // namespace kelto::halvek::ctl
