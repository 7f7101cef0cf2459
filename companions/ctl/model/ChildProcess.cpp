#include "companions/ctl/model/ChildProcess.h"

#include "companions/common/UniqueFd.h"
#include "companions/ctl/Failure.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <exception>
#include <string_view>

namespace kelto::halvek::ctl {

namespace {

constexpr char answered = '+';
constexpr char failed = '-';
constexpr size_t longestLastLine = 4096;

[[noreturn]] void ThrowErrno(const char* what) {
    throw Failure(std::string(what) + ": " + std::strerror(errno));
}

int64_t NowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

void WriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return;
        }
        text.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
    }
}

std::string RunTask(const ChildProcess::Task& task) {
    try {
        return answered + task();
    } catch (const std::exception& exception) {
        return failed + std::string(exception.what());
    }
}

/** Never beyond what the caller itself may take. */
void LimitProcessorTime(unsigned seconds) {
    // What the caller ignores its children ignore too.
    std::signal(SIGXCPU, SIG_DFL);
    rlimit limit{};
    getrlimit(RLIMIT_CPU, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, seconds);
    setrlimit(RLIMIT_CPU, &limit);
}

[[noreturn]] void BeChild(pid_t parent, const ChildProcess::Task& task, unsigned processorSeconds, int answerFd,
                          int recordsFd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent || dup2(recordsFd, STDERR_FILENO) < 0) {
        _exit(1);
    }
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    LimitProcessorTime(processorSeconds);
    WriteAll(answerFd, RunTask(task));
    // Threads of the task's may still be there, and what they use must stay.
    _exit(0);
}

/** The end of what was written, without its line break and what stands before it. */
std::string LastLine(int recordsFd) {
    struct stat status {};
    if (fstat(recordsFd, &status) != 0 || status.st_size == 0) {
        return "it wrote no record";
    }
    std::array<char, longestLastLine> buffer{};
    const off_t begin = std::max<off_t>(0, status.st_size - static_cast<off_t>(buffer.size()));
    const ssize_t count = pread(recordsFd, buffer.data(), buffer.size(), begin);
    std::string_view text(buffer.data(), count < 0 ? 0 : static_cast<size_t>(count));
    while (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    return "its last record: " + std::string(text.substr(text.rfind('\n') + 1));
}

/** Appends what comes until the writer is gone; false if it takes too long. */
bool ReadAnswer(int fd, int limitMs, std::string& answer) {
    const int64_t deadline = NowMs() + limitMs;
    std::array<char, 65536> buffer;
    while (true) {
        pollfd readable{fd, POLLIN, 0};
        const int64_t left = deadline - NowMs();
        if (left <= 0 || poll(&readable, 1, static_cast<int>(left)) == 0) {
            return false;
        }
        const ssize_t count = readable.revents == 0 ? -1 : read(fd, buffer.data(), buffer.size());
        if (count == 0) {
            return true;
        }
        answer.append(buffer.data(), count < 0 ? 0 : static_cast<size_t>(count));
    }
}

int WaitFor(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

std::string HowItEnded(int status) {
    if (WIFSIGNALED(status)) {
        return std::string("it was ended by ") + strsignal(WTERMSIG(status));
    }
    return "it ended with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

std::string ChildProcess::Run(const Task& task, const Limits& limits) {
    const companion::UniqueFd records(memfd_create("records", MFD_CLOEXEC));
    std::array<int, 2> ends{};
    if (!records.IsOpen() || pipe2(ends.data(), O_CLOEXEC) != 0) {
        ThrowErrno("the model of the daemon cannot be started");
    }
    const companion::UniqueFd answerEnd(ends[0]);
    companion::UniqueFd childEnd(ends[1]);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        BeChild(parent, task, limits.processorSeconds, childEnd.Get(), records.Get());
    }
    if (child < 0) {
        ThrowErrno("the model of the daemon cannot be started");
    }
    childEnd.Reset();
    std::string answer;
    const bool inTime = ReadAnswer(answerEnd.Get(), limits.waitMs, answer);
    if (!inTime) {
        kill(child, SIGKILL);
    }
    const int status = WaitFor(child);
    if (!inTime) {
        throw Failure("the model of the daemon does not come to an end; " + LastLine(records.Get()));
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGXCPU) {
        throw Failure("the model of the daemon takes more than " + std::to_string(limits.processorSeconds) +
                      " s of processor time; " + LastLine(records.Get()));
    }
    if (status != 0 || answer.empty()) {
        throw Failure("the model of the daemon has crashed: " + HowItEnded(status) + "; " + LastLine(records.Get()));
    }
    if (answer.front() == failed) {
        throw Failure(answer.substr(1));
    }
    return answer.substr(1);
}

}  // namespace kelto::halvek::ctl
