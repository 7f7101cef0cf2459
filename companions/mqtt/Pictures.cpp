#include "companions/mqtt/Pictures.h"

#include "companions/common/ReadToEnd.h"
#include "companions/common/UniqueFd.h"
#include "companions/mqtt/Log.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace kelto::halvek::mqtt {

using companion::UniqueFd;

namespace {

std::system_error Failure(int error, const std::string& path) {
    return {error, std::generic_category(), path};
}

std::string PictureOf(const std::string& path) {
    // A named pipe in its place would hold a plain open() for ever.
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat found {};
    if (!file.IsOpen() || fstat(file.Get(), &found) != 0) {
        throw Failure(errno, path);
    }
    if (!S_ISREG(found.st_mode)) {
        throw std::runtime_error(path + " is no ordinary file");
    }
    std::string bytes;
    const int error = companion::ReadToEnd(file.Get(), bytes, Pictures::largest);
    if (error == EFBIG) {
        throw std::runtime_error(path + " has more than " + std::to_string(Pictures::largest) + " bytes");
    }
    if (error != 0) {
        throw Failure(error, path);
    }
    if (bytes.empty()) {
        throw std::runtime_error(path + " is empty");
    }
    return bytes;
}

}  // namespace

std::optional<std::string> Pictures::Take(const std::string& path, Milliseconds now) {
    if (failures >= mostFailures) {
        return std::nullopt;
    }
    nextAt = now + pause;
    try {
        std::string bytes = PictureOf(path);
        problem.clear();
        return bytes;
    } catch (const std::exception& failure) {
        if (problem != failure.what()) {
            problem = failure.what();
            Log::Warning("No picture is published: " + problem);
        }
        return std::nullopt;
    }
}

void Pictures::NoteFailure() {
    if (++failures == mostFailures) {
        Log::Warning("The broker has not taken a picture three times in a row: no more are published");
    }
}

}  // namespace kelto::halvek::mqtt
