#include "bench/load/Program.h"

#include "bench/load/Clock.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace kelto::halvek::bench {

namespace {

std::optional<cpu_set_t> programProcessors;

[[noreturn]] void Become(std::vector<char*>& arguments) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // A group of its own, so that a stop reaches the program below a tracer.
    setpgid(0, 0);
    if (programProcessors) {
        sched_setaffinity(0, sizeof *programProcessors, &*programProcessors);
    }
    // Ignored here, see main, and a program would inherit that.
    signal(SIGPIPE, SIG_DFL);
    execvp(arguments.front(), arguments.data());
    std::perror(arguments.front());
    _exit(127);
}

}  // namespace

void ThrowSystemError(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

void SeparateProcessors() {
    cpu_set_t all;
    if (sched_getaffinity(0, sizeof all, &all) != 0 || CPU_COUNT(&all) < 2) {
        return;
    }
    int last = CPU_SETSIZE - 1;
    while (!CPU_ISSET(last, &all)) {
        --last;
    }
    cpu_set_t own;
    CPU_ZERO(&own);
    CPU_SET(last, &own);
    programProcessors = own;
    CPU_CLR(last, &all);
    sched_setaffinity(0, sizeof all, &all);
}

Program::Program(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    pid = fork();
    if (pid < 0) {
        ThrowSystemError("fork");
    }
    if (pid == 0) {
        Become(arguments);
    }
    // On both sides: whoever comes first, the group is there before it is needed.
    setpgid(pid, pid);
}

Program::~Program() {
    if (pid > 0) {
        kill(-pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

int64_t Program::ProcessorTime() const {
    clockid_t clock{};
    if (clock_getcpuclockid(pid, &clock) != 0) {
        throw std::runtime_error("the program has ended");
    }
    return Now(clock);
}

bool Program::HasEnded() {
    if (pid > 0 && waitpid(pid, &status, WNOHANG) == pid) {
        pid = -1;
    }
    return pid < 0;
}

void Program::Stop() {
    if (HasEnded()) {
        throw std::runtime_error("the program has ended by itself");
    }
    kill(-pid, SIGTERM);
    for (const int64_t deadline = Now() + patienceNs; !HasEnded(); SleepUntil(Now() + nsPerMs)) {
        if (Now() > deadline) {
            throw std::runtime_error("the program does not stop");
        }
    }
    if (status != 0) {
        throw std::runtime_error("the program ended with wait status " + std::to_string(status));
    }
}

}  // namespace kelto::halvek::bench
