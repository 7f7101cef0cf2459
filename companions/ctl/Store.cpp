#include "companions/ctl/Store.h"

#include "companions/ctl/Failure.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/FileUtils.h"
#include "kelto/settings/SettingsStore.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

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

std::vector<settings::SettingsStore::File> AsOfThePlatform(const std::vector<Store::File>& files) {
    std::vector<settings::SettingsStore::File> copies;
    copies.reserve(files.size());
    for (const Store::File& file : files) {
        copies.push_back({file.path, file.text});
    }
    return copies;
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
        Store store{.path = path, .files = {}};
        for (settings::SettingsStore::File& file : settings::SettingsStore::Read()) {
            store.files.push_back({std::move(file.path), std::move(file.text)});
        }
        return store;
    } catch (const osa::Exception& exception) {
        throw Failure(exception.what());
    }
}

core::IniFile Store::Parse() const {
    return settings::SettingsStore::Parse(AsOfThePlatform(files));
}

bool Store::Holds() const {
    return settings::SettingsStore::Holds(AsOfThePlatform(files));
}

}  // namespace kelto::halvek::ctl
