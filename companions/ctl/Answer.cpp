#include "companions/ctl/Answer.h"

#include "companions/ctl/Failure.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kelto::halvek::ctl {

void Answer::Flush() {
    std::string_view rest = text;
    // Nothing is written too: no findings are an answer, and one that a closed output cannot give.
    do {
        const ssize_t written = write(STDOUT_FILENO, rest.data(), rest.size());
        if (written >= 0) {
            rest.remove_prefix(static_cast<size_t>(written));
        } else if (errno != EINTR) {
            throw Failure(std::string("the answer cannot be written: ") + std::strerror(errno));
        }
    } while (!rest.empty());
    text.clear();
}

}  // namespace kelto::halvek::ctl
