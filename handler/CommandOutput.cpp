#include "handler/CommandOutput.h"

#include "kelto/osa/Exception.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace kelto::halvek::handler {

namespace {

struct PipeCloser {
    void operator()(FILE* pipe) const { pclose(pipe); }
};

}  // namespace

std::string ReadCommandOutput(const std::string& command, size_t limit) {
    // Not inherited by commands that other threads start meanwhile.
    const std::unique_ptr<FILE, PipeCloser> pipe(popen(command.c_str(), "re"));
    if (pipe == nullptr) {
        throw osa::Exception("Cannot run %s: %s", command.c_str(), std::strerror(errno));
    }
    std::string output(limit, '\0');
    size_t length = 0;
    // By hand: stdio takes an interruption for the end. Whether a signal handler has the read go on is its installer's
    // affair.
    while (length < limit) {
        const ssize_t count = read(fileno(pipe.get()), &output[length], limit - length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throw osa::Exception("Cannot read from %s: %s", command.c_str(), std::strerror(errno));
        }
        if (count == 0) {
            break;
        }
        length += static_cast<size_t>(count);
    }
    output.resize(length);
    return output;
}

}  // namespace kelto::halvek::handler
