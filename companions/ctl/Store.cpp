#include "companions/ctl/Store.h"

#include "companions/ctl/Failure.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/FileUtils.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace kelto::halvek::ctl {

namespace {

[[noreturn]] void Refuse(const std::string& path, const std::string& reason) {
    throw Failure("cannot read settings " + path + ": " + reason);
}

struct stat StatusOf(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        Refuse(path, std::strerror(errno));
    }
    return status;
}

/** The size. Throws for what would not end. */
size_t CheckFile(const std::string& path, const struct stat& status) {
    if (!S_ISREG(status.st_mode)) {
        Refuse(path, "it is no file");
    }
    return static_cast<size_t>(status.st_size);
}

size_t CheckFolder(const std::string& path) {
    std::vector<std::string> entries;
    osa::FileUtils::ListFiles(path, entries);
    size_t bytes = 0;
    for (const std::string& entry : entries) {
        if (entry.ends_with(".ini") && entry[entry.rfind('/') + 1] != '.') {
            bytes += CheckFile(entry, StatusOf(entry));
        }
    }
    return bytes;
}

}  // namespace

Store Store::Read(const std::string& path) {
    const struct stat status = StatusOf(path);
    const bool isFolder = S_ISDIR(status.st_mode);
    if (!isFolder && !S_ISREG(status.st_mode)) {
        Refuse(path, "it is neither a file nor a folder");
    }
    try {
        if ((isFolder ? CheckFolder(path) : CheckFile(path, status)) > mostBytes) {
            Refuse(path, "more than " + std::to_string(mostBytes >> 20U) + " MiB");
        }
        return {path, settings::SettingsStore::Read()};
    } catch (const osa::Exception& exception) {
        throw Failure(exception.what());
    }
}

}  // namespace kelto::halvek::ctl
