#include "source/ListeningThread.h"

namespace kelto::halvek::source {

namespace {

constexpr unsigned stackKiB = 1024;
constexpr int defaultPriority = 0;

}  // namespace

void ListeningThread::Start(const char* name, osa::Runnable& body) {
    std::list<osa::Thread> started;
    started.emplace_back(name, body, stackKiB, defaultPriority);
    std::unique_lock lock(mutex);
    latchOpen = false;
    started.back().Run();
    threads.splice(threads.end(), started);
    changed.wait(lock, [this] { return latchOpen; });
}

void ListeningThread::OpenLatch() {
    {
        const std::lock_guard lock(mutex);
        latchOpen = true;
    }
    changed.notify_all();
}

void ListeningThread::Finish() {
    // Each is joined as it goes.
    threads.clear();
}

}  // namespace kelto::halvek::source
