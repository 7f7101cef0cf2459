#include "source/ListeningThread.h"

namespace kelto::halvek::source {

namespace {

constexpr unsigned stackKiB = 1024;
constexpr int defaultPriority = 0;

}  // namespace

void ListeningThread::Start(const char* name, osa::Runnable& body) {
    std::unique_lock lock(mutex);
    latchOpen = false;
    auto started = std::make_unique<osa::Thread>(name, body, stackKiB, defaultPriority);
    started->Run();
    thread = std::move(started);
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
    if (thread != nullptr) {
        thread->Join();
        thread.reset();
    }
}

}  // namespace kelto::halvek::source
