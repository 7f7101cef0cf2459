#include "companions/ctl/PlainFile.h"

#include "companions/common/ReadToEnd.h"
#include "companions/common/UniqueFd.h"
#include "companions/ctl/Failure.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace kelto::halvek::ctl {

std::string ReadPlainFile(const std::string& path, size_t most) {
    const companion::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        throw Failure("cannot read " + path + ": " + std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw Failure("cannot read " + path + ": it is no file");
    }
    std::string text;
    if (const int error = companion::ReadToEnd(file.Get(), text, most); error != 0) {
        throw Failure("cannot read " + path + ": " + std::strerror(error));
    }
    return text;
}

}  // namespace kelto::halvek::ctl
