#include "companions/page/Errand.h"

#include "camera/runtime/EventLoop.h"
#include "camera/runtime/Failure.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

namespace kelto::page {

namespace {

using companion::UniqueFd;
using vcam::EventLoop;

constexpr uint64_t patience = 10'000'000;  // microseconds
constexpr size_t largestOutput = 1'048'576;
constexpr size_t largestComplaints = 4'096;

/** From its beginning, wherever its writer is. */
std::string Content(const UniqueFd& file, size_t largest) {
    struct stat status {};
    fstat(file.Get(), &status);
    std::string content(std::min(largest, static_cast<size_t>(status.st_size)), '\0');
    const ssize_t length = pread(file.Get(), content.data(), content.size(), 0);
    content.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return content;
}

Errand::Outcome Failed(const std::string& problem) {
    return {.problem = problem, .status = 0, .output = {}, .complaints = {}};
}

/** What a program is started with: no signal blocked or ignored as it is here, and its streams. */
class Surroundings {
public:
    Surroundings(int output, int complaints) {
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, complaints, STDERR_FILENO);
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes, &signals);
        sigaddset(&signals, SIGPIPE);
        posix_spawnattr_setsigdefault(&attributes, &signals);
    }
    ~Surroundings() {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    Surroundings(const Surroundings&) = delete;
    Surroundings& operator=(const Surroundings&) = delete;

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

}  // namespace

Errand::Errand(EventLoop& eventLoop) : loop(eventLoop), deadline(eventLoop) {
    // The loop wants it so, or an end that comes early is missed.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGCHLD);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

Errand::~Errand() {
    if (child > 0) {
        source.reset();
        End();
    }
}

void Errand::Run(std::vector<std::string> words, Callback done) {
    callback = std::move(done);
    isOverdue = false;
    name = words.front();
    if (const int error = Start(words); error != 0) {
        // From the loop, as any other end.
        deadline.StartAt(EventLoop::Now(), [this, problem = name + " cannot be run: " + std::strerror(error)] {
            Finish(Failed(problem));
        });
        return;
    }
    deadline.StartAt(EventLoop::Now() + patience, [this] {
        isOverdue = true;
        kill(child, SIGKILL);
    });
}

int Errand::Start(std::vector<std::string>& words) {
    output.Reset(memfd_create("output", MFD_CLOEXEC));
    complaints.Reset(memfd_create("complaints", MFD_CLOEXEC));
    if (!output.IsOpen() || !complaints.IsOpen()) {
        return errno;
    }
    const Surroundings surroundings(output.Get(), complaints.Get());
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const int error = posix_spawnp(&child, arguments.front(), &surroundings.actions, &surroundings.attributes,
                                   arguments.data(), environ);
    return error != 0 ? error : Watch();
}

int Errand::Watch() {
    sd_event_source* added = nullptr;
    const int result = sd_event_add_child(loop.Get(), &added, child, WEXITED, &Errand::OnEnd, this);
    if (result < 0) {
        End();
        return -result;
    }
    source.reset(added);
    return 0;
}

void Errand::End() {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    child = -1;
}

int Errand::OnEnd(sd_event_source*, const siginfo_t* end, void* self) {
    Errand& errand = *static_cast<Errand*>(self);
    const Outcome outcome = errand.OutcomeOf(*end);
    errand.source.reset();
    errand.child = -1;
    errand.Finish(outcome);
    return 0;
}

void Errand::Finish(const Outcome& outcome) {
    deadline.Cancel();
    output.Reset();
    complaints.Reset();
    const Callback told = std::exchange(callback, nullptr);
    told(outcome);
}

Errand::Outcome Errand::OutcomeOf(const siginfo_t& end) const {
    if (isOverdue) {
        return Failed(name + " does not come to an end");
    }
    if (end.si_code != CLD_EXITED) {
        return Failed(name + " was ended by " + strsignal(end.si_status));
    }
    return {.problem = {},
            .status = end.si_status,
            .output = Content(output, largestOutput),
            .complaints = Content(complaints, largestComplaints)};
}

}  // namespace kelto::page
