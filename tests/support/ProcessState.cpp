#include "tests/support/ProcessState.h"

#include "tests/support/TempDir.h"
#include "tests/support/WaitUntil.h"

#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace kelto::test {

namespace {

struct FolderCloser {
    void operator()(DIR* folder) const { closedir(folder); }
};

/** The ids of all threads. */
std::vector<std::string> Threads() {
    const std::unique_ptr<DIR, FolderCloser> folder(opendir("/proc/self/task"));
    std::vector<std::string> threads;
    while (const dirent* const entry = readdir(folder.get())) {
        if (entry->d_name[0] != '.') {
            threads.emplace_back(entry->d_name);
        }
    }
    return threads;
}

/** What the system says of a thread under a name. */
std::string StatusOf(pid_t thread, const std::string& name) {
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(name + ":\t", 0) == 0) {
            return line.substr(name.size() + 2);
        }
    }
    throw std::runtime_error("there is no thread " + std::to_string(thread));
}

}  // namespace

size_t CountThreads() {
    // ThreadSanitizer has a thread of its own from the first thread on.
    static std::once_flag first;
    std::call_once(first, [] {
        pid_t id = 0;
        std::thread([&id] { id = gettid(); }).join();
        // The system lists a thread for a moment after it has been joined.
        WaitUntil([id] { return access(("/proc/self/task/" + std::to_string(id)).c_str(), F_OK) != 0; });
    });
    return Threads().size();
}

std::vector<pid_t> ThreadsNamed(const std::string& name) {
    std::vector<pid_t> ids;
    for (const std::string& thread : Threads()) {
        if (ReadWholeFile("/proc/self/task/" + thread + "/comm") == name + "\n") {
            ids.push_back(std::stoi(thread));
        }
    }
    return ids;
}

bool HasThread(const std::string& name) {
    return !ThreadsNamed(name).empty();
}

uint64_t CountSleeps(pid_t thread) {
    return std::stoull(StatusOf(thread, "voluntary_ctxt_switches"));
}

bool IsAsleep(pid_t thread) {
    return StatusOf(thread, "State")[0] == 'S';
}

uint64_t BlockedSignals(pid_t thread) {
    return std::stoull(StatusOf(thread, "SigBlk"), nullptr, 16);
}

}  // namespace kelto::test
