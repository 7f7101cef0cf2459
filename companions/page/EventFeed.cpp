#include "companions/page/EventFeed.h"

#include "camera/runtime/EventLoop.h"
#include "camera/runtime/Failure.h"

#include <sys/epoll.h>

#include <exception>
#include <string_view>
#include <utility>

namespace kelto::page {

namespace {

using vcam::EventLoop;

constexpr std::string_view end = ".halvek.any";
// Ahead of the browsers: the pipe must never fill, however many they are.
constexpr int64_t priority = SD_EVENT_PRIORITY_NORMAL - 10;

companion::EventReader::Milliseconds Now() {
    return companion::EventReader::Milliseconds(EventLoop::Now() / 1'000);
}

std::string FolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
    const size_t begin = path.rfind('/') + 1;
    return path.substr(begin, path.size() - begin - end.size());
}

}  // namespace

EventFeed::EventFeed(EventLoop& eventLoop, const std::string& pipePath, companion::EventReader::Taker taker)
    : loop(eventLoop), path(pipePath), reader(std::move(taker)), timer(eventLoop) {}

void EventFeed::OpenIfClosed() {
    if (pipe) {
        return;
    }
    try {
        pipe.emplace(NameOf(path), FolderOf(path));
        sd_event_source* added = nullptr;
        vcam::Check(sd_event_add_io(loop.Get(), &added, pipe->Descriptor(), EPOLLIN, &EventFeed::OnReadable, this),
                    "Cannot listen to events");
        source.reset(added);
        vcam::Check(sd_event_source_set_priority(added, priority), "Cannot listen to events");
        reader.TakeLeftOver(pipe->LeftOver());
        problem.clear();
    } catch (const std::exception& exception) {
        source.reset();
        pipe.reset();
        problem = exception.what();
    }
}

int EventFeed::OnReadable(sd_event_source*, int, uint32_t, void* self) {
    static_cast<EventFeed*>(self)->Read();
    return 0;
}

void EventFeed::Read() {
    try {
        reader.Take(pipe->Read(), Now());
        AwaitEnd();
    } catch (const std::exception& exception) {
        source.reset();
        pipe.reset();
        problem = exception.what();
    }
}

void EventFeed::AwaitEnd() {
    const auto deadline = reader.Deadline();
    if (!deadline) {
        timer.Cancel();
        return;
    }
    timer.StartAt(static_cast<uint64_t>(deadline->count()) * 1'000, [this] {
        reader.CloseOverdue(Now());
        AwaitEnd();
    });
}

}  // namespace kelto::page
