#include "kelto/inet/AttachedFile.h"

#include "kelto/osa/Exception.h"
#include "kelto/osa/PathUtils.h"
#include "kelto/osa/ReadToEnd.h"
#include "kelto/osa/UniqueFd.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace kelto::inet {

namespace {

/** In bytes. A mail takes four times that in memory, and the mail library ends the process when there is none. */
constexpr off_t largestAttachment = off_t{16} * 1024 * 1024;
constexpr const char* tooLarge = "more than 16 MiB";

struct KnownExtension {
    const char* extension;
    MediaType type;
};

constexpr std::array<KnownExtension, 10> knownExtensions = {{
    {"jpg", {"image", "jpeg"}},
    {"jpeg", {"image", "jpeg"}},
    {"png", {"image", "png"}},
    {"gif", {"image", "gif"}},
    {"bmp", {"image", "bmp"}},
    {"webp", {"image", "webp"}},
    {"mp4", {"video", "mp4"}},
    {"avi", {"video", "x-msvideo"}},
    {"pdf", {"application", "pdf"}},
    {"txt", {"text", "plain"}},
}};

[[noreturn]] void ThrowCannotRead(const std::string& path, const char* reason) {
    throw osa::Exception("Cannot read %s: %s", path.c_str(), reason);
}

void CheckFile(int file, const std::string& path) {
    struct stat status {};
    if (fstat(file, &status) != 0) {
        ThrowCannotRead(path, std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        ThrowCannotRead(path, "not a regular file");
    }
    if (status.st_size > largestAttachment) {
        ThrowCannotRead(path, tooLarge);
    }
}

}  // namespace

MediaType TypeOfFile(const std::string& path) {
    const std::string extension = osa::PathUtils::FileExt(path);
    for (const KnownExtension& known : knownExtensions) {
        if (strcasecmp(extension.c_str(), known.extension) == 0) {
            return known.type;
        }
    }
    return {"application", "octet-stream"};
}

std::string ReadAttachedFile(const std::string& path) {
    // Non-blocking, so that a pipe under that name is refused instead of waited for.
    const osa::UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsValid()) {
        ThrowCannotRead(path, std::strerror(errno));
    }
    CheckFile(file.Get(), path);
    std::string content;
    // It may have grown meanwhile.
    if (const int error = osa::ReadToEnd(file.Get(), content, largestAttachment); error != 0) {
        ThrowCannotRead(path, error == EFBIG ? tooLarge : std::strerror(error));
    }
    return content;
}

}  // namespace kelto::inet
