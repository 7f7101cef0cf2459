#include "companions/ctl/Outflow.h"

#include "companions/ctl/Failure.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace kelto::halvek::ctl {

void Outflow::Write(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<size_t>(written));
        } else if (errno == EAGAIN) {
            // Somebody who shares it does not want to wait; we do.
            pollfd writable{STDOUT_FILENO, POLLOUT, 0};
            poll(&writable, 1, -1);
        } else if (errno != EINTR) {
            throw Failure(std::string("the answer cannot be written: ") + std::strerror(errno));
        }
    }
}

}  // namespace kelto::halvek::ctl
