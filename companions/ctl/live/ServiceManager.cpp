#include "companions/ctl/live/ServiceManager.h"

#include "companions/ctl/Failure.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* program = "systemctl";
constexpr std::chrono::milliseconds betweenLooks{5};

/** Nothing of its own to ask or to answer with: a question for a password would wait for ever. */
pid_t Spawn(const std::vector<std::string>& words) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    std::vector<std::string> texts{program};
    texts.insert(texts.end(), words.begin(), words.end());
    std::vector<char*> arguments;
    arguments.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        arguments.push_back(text.data());
    }
    arguments.push_back(nullptr);
    pid_t child = -1;
    const int error = posix_spawnp(&child, program, &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw Failure(std::string("cannot run ") + program + ": " + std::strerror(error));
    }
    return child;
}

}  // namespace

std::string ServiceManager::Run(const std::vector<std::string>& words, Clock::time_point deadline) {
    std::string command = program;
    for (const std::string& word : words) {
        command += " " + word;
    }
    const pid_t child = Spawn(words);
    int status = 0;
    while (waitpid(child, &status, WNOHANG) != child) {
        if (Clock::now() > deadline) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            throw Failure(command + " does not come to an end");
        }
        std::this_thread::sleep_for(betweenLooks);
    }
    if (WIFSIGNALED(status)) {
        return command + " was ended by " + strsignal(WTERMSIG(status));
    }
    return WEXITSTATUS(status) == 0 ? "" : command + " ended with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace kelto::halvek::ctl
