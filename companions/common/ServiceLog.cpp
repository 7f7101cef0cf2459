#include "companions/common/ServiceLog.h"

#include "companions/common/Printable.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace kelto::companion {

namespace {

/** A pipe that has room takes so much in one piece. */
constexpr size_t longestLine = 4096;

bool HasRoom(int fd) {
    pollfd asked{fd, POLLOUT, 0};
    return poll(&asked, 1, 0) == 1 && (asked.revents & POLLOUT) != 0;
}

}  // namespace

ServiceLog::ServiceLog(std::string_view programName)
    : program(programName), isJournal(std::getenv("JOURNAL_STREAM") != nullptr) {}

void ServiceLog::Write(Level level, std::string_view text) {
    if (lost > 0) {
        if (!TryToWrite(Level::Warning, std::to_string(lost) + " records were lost: nobody read them")) {
            ++lost;
            return;
        }
        lost = 0;
    }
    lost += TryToWrite(level, text) ? 0 : 1;
}

bool ServiceLog::TryToWrite(Level level, std::string_view text) const {
    std::string line = isJournal ? "<" + std::to_string(static_cast<int>(level)) + ">" : program + ": ";
    line.append(Printable(text));
    line.resize(std::min(line.size(), longestLine - 1));
    line.push_back('\n');
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) != 0) {
        return false;
    }
    if (S_ISSOCK(status.st_mode)) {
        return send(STDERR_FILENO, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0;
    }
    if (!S_ISREG(status.st_mode) && !HasRoom(STDERR_FILENO)) {
        return false;
    }
    return write(STDERR_FILENO, line.data(), line.size()) > 0;
}

}  // namespace kelto::companion
