#include "companions/common/ReadToEnd.h"

#include <unistd.h>

#include <array>
#include <cerrno>

namespace kelto::companion {

int ReadToEnd(int descriptor, std::string& content, size_t most) {
    std::array<char, 16384> buffer;
    while (true) {
        const ssize_t count = read(descriptor, buffer.data(), buffer.size());
        if (count == 0) {
            return 0;
        }
        if (count > 0) {
            content.append(buffer.data(), static_cast<size_t>(count));
        } else if (errno != EINTR) {
            return errno;
        }
        if (content.size() > most) {
            return EFBIG;
        }
    }
}

}  // namespace kelto::companion
