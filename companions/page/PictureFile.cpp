#include "companions/page/PictureFile.h"

#include "companions/common/UniqueFd.h"
#include "companions/page/EntityTag.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cinttypes>
#include <cstdio>

namespace kelto::page {

namespace {

using companion::UniqueFd;

constexpr off_t largest = 16'777'216;

std::string TagOf(const struct stat& status) {
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "\"%jx-%jx.%09lx\"", static_cast<uintmax_t>(status.st_ino),
                  static_cast<uintmax_t>(status.st_mtim.tv_sec), static_cast<unsigned long>(status.st_mtim.tv_nsec));
    return text.data();
}

bool IsPicture(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_size > 0 && status.st_size <= largest;
}

/** As much as there is, up to the size. */
std::string ReadAll(const UniqueFd& file, size_t size) {
    std::string content(size, '\0');
    size_t done = 0;
    while (done < size) {
        const ssize_t length = read(file.Get(), content.data() + done, size - done);
        if (length <= 0) {
            break;
        }
        done += static_cast<size_t>(length);
    }
    content.resize(done);
    return content;
}

}  // namespace

std::string PictureFile::Tag() const {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && IsPicture(status) ? TagOf(status) : std::string();
}

HttpAnswer PictureFile::Answer(const HttpRequest& request) const {
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0 || !IsPicture(status)) {
        return HttpAnswer::Of(503, "There is no picture");
    }
    HttpAnswer answer;
    const std::string tag = TagOf(status);
    answer.headers = {{"ETag", tag}, {"Cache-Control", "no-cache"}};
    if (Names(request.ifNoneMatch, tag)) {
        answer.status = 304;
        return answer;
    }
    answer.contentType = "image/jpeg";
    answer.body = ReadAll(file, static_cast<size_t>(status.st_size));
    return answer;
}

}  // namespace kelto::page
