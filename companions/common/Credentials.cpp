#include "companions/common/Credentials.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace kelto::companion {

Credentials Credentials::OfThisProcess() {
    const char* folder = getenv("CREDENTIALS_DIRECTORY");
    return folder == nullptr ? Credentials() : OfFolder(folder);
}

Credentials Credentials::OfFolder(const std::string& folder) {
    Credentials credentials;
    credentials.folder = folder;
    const std::string path = folder + "/secrets";
    std::ifstream file(path);
    if (!file) {
        if (errno == ENOENT) {
            return credentials;
        }
        throw std::runtime_error("Cannot open " + path + ": " + strerror(errno));
    }
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        if (line.empty() || line.front() == '#') {
            continue;
        }
        const size_t equals = line.find('=');
        if (equals == std::string::npos || equals == 0) {
            throw std::runtime_error(path + ":" + std::to_string(number) + ": this is no NAME=value");
        }
        credentials.secrets[line.substr(0, equals)] = line.substr(equals + 1);
    }
    if (file.bad()) {
        throw std::runtime_error("Cannot read " + path + ": " + strerror(errno));
    }
    return credentials;
}

std::optional<std::string> Credentials::Secret(const std::string& name) const {
    const auto found = secrets.find(name);
    return found == secrets.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::string> Credentials::PathOf(const std::string& name) const {
    const std::string path = folder + "/" + name;
    struct stat found {};
    const bool isThere = HasFolder() && stat(path.c_str(), &found) == 0 && found.st_size > 1;
    return isThere ? std::optional(path) : std::nullopt;
}

}  // namespace kelto::companion
