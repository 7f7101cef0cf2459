#include "kelto/osa/FileUtils.h"

#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/PathUtils.h"
#include "kelto/osa/UniqueFd.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace kelto::osa {

namespace {

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

core::Logger& Log() {
    return core::Logger::GetLogger("kelto.osa");
}

[[noreturn]] void ThrowSystemError(const char* step, const std::string& path) {
    throw Exception("Cannot %s %s: %s", step, path.c_str(), std::strerror(errno));
}

bool IsDotEntry(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

bool CopyContent(int from, int to) {
    std::array<char, 16384> buffer{};
    while (true) {
        const ssize_t count = read(from, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return count == 0;
        }
        if (!WriteAll(to, buffer.data(), static_cast<size_t>(count))) {
            return false;
        }
    }
}

int OpenRegularFile(const std::string& path) {
    // Non-blocking, so that a FIFO under that name is refused instead of waited for.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat status {};
    if (fd < 0) {
        ThrowSystemError("read", path);
    }
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(fd);
        throw Exception("Cannot read %s: it is no regular file", path.c_str());
    }
    return fd;
}

/**
 * A name for a file that is being written: short, so that it fits beside a final name of full length. The plain one is
 * for a file system that knows only names of eight characters, a dot and three, none of which begins with the dot.
 */
std::string UnfinishedName(bool hidden, unsigned number) {
    constexpr unsigned plainNamesOfAProcess = 64;
    constexpr unsigned sevenDigits = 0xfffffff;
    const auto process = static_cast<unsigned>(getpid());
    std::array<char, 32> name{};
    if (hidden) {
        std::snprintf(name.data(), name.size(), ".%u-%u", process, number);
    } else {
        std::snprintf(name.data(), name.size(), "h%07x.tmp", (process * plainNamesOfAProcess + number) & sevenDigits);
    }
    return name.data();
}

/** The file system takes no such name: too long, or with characters that it has no place for. */
bool IsRefusedName(int error) {
    return error == ENAMETOOLONG || error == EINVAL;
}

/** Creates a file of a name that nobody uses, hidden if the file system knows such names. */
int CreateUnfinished(const std::string& directory, std::string& path) {
    static std::atomic<unsigned> counter = 0;
    bool hidden = true;
    while (true) {
        const unsigned number = counter++;
        path = PathUtils::PathConcat(directory, UnfinishedName(hidden, number));
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) {
            return fd;
        }
        if (hidden && IsRefusedName(errno)) {
            hidden = false;
        } else if (errno != EEXIST) {
            ThrowSystemError("write into", directory);
        }
    }
}

bool MoveIntoPlace(const std::string& from, const std::string& to, bool overwrite) {
    if (overwrite) {
        return rename(from.c_str(), to.c_str()) == 0;
    }
    return renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
}

/** False for a name that the file system refuses; any other failure throws. */
bool CopyThroughUnfinished(const std::string& from, const std::string& to, bool overwrite) {
    const UniqueFd source(OpenRegularFile(from));
    std::string unfinished;
    UniqueFd target(CreateUnfinished(PathUtils::Dirname(to), unfinished));
    const bool written = CopyContent(source.Get(), target.Get()) && fsync(target.Get()) == 0 && target.Close();
    if (written && MoveIntoPlace(unfinished, to, overwrite)) {
        return true;
    }
    const int error = errno;
    unlink(unfinished.c_str());
    if (written && IsRefusedName(error)) {
        return false;
    }
    errno = error;
    ThrowSystemError("write", to);
}

bool CopyAndLog(const std::string& from, const std::string& to, bool overwrite) {
    try {
        return CopyThroughUnfinished(from, to, overwrite);
    } catch (const Exception& exception) {
        Log().Error("%s", exception.what());
        return false;
    }
}

}  // namespace

void FileUtils::ListFiles(const std::string& directory, std::vector<std::string>& paths) {
    paths.clear();
    const std::unique_ptr<DIR, DirectoryCloser> listing(opendir(directory.c_str()));
    if (listing == nullptr) {
        if (errno == ENOENT) {
            return;
        }
        throw Exception("Cannot list %s: %s", directory.c_str(), std::strerror(errno));
    }
    // Only errno tells a failure from the end, and anything in between may have touched it.
    for (errno = 0; const dirent* entry = readdir(listing.get()); errno = 0) {
        if (!IsDotEntry(entry->d_name)) {
            paths.push_back(PathUtils::PathConcat(directory, entry->d_name));
        }
    }
    if (errno != 0) {
        throw Exception("Cannot list %s: %s", directory.c_str(), std::strerror(errno));
    }
    std::sort(paths.begin(), paths.end());
}

bool FileUtils::CopyFile(const std::string& from, const std::string& to, bool overwrite) noexcept {
    try {
        return CopyAndLog(from, to, overwrite);
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace kelto::osa
