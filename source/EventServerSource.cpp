#include "source/EventServerSource.h"

#include "env/SettingsReader.h"
#include "event/MotionEvent.h"
#include "handler/EventHandler.h"
#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/MutexAutoLock.h"
#include "kelto/osa/Signal.h"
#include "source/FdInputStream.h"
#include "source/PostedBlock.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <utility>

namespace kelto::halvek::source {

namespace {

/** By design 666 in decimal, 01232 in octal; the umask applies. To let others post, make the pipe beforehand. */
constexpr mode_t fifoMode = 666;
constexpr time_t selectTimeoutSec = 5;
/** An event that has begun is not torn by a stop, unless it is longer than this. */
constexpr size_t mostBytesAfterStop = 60'000;

core::Logger& Log() {
    return core::Logger::GetLogger("halvek");
}

bool WaitForInput(int fd) {
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(fd, &readSet);
    timeval timeout{selectTimeoutSec, 0};
    if (select(fd + 1, &readSet, nullptr, nullptr, &timeout) < 1) {
        return false;
    }
    Log().Trace("Select returned");
    return FD_ISSET(fd, &readSet);
}

}  // namespace

EventServerSource::EventServerSource()
    : logger(Log()), handlersMapLock(std::make_unique<osa::Mutex>("EventServerSource::HandlersMapLock")) {}

EventServerSource::~EventServerSource() {
    if (GetCurrentThread() != nullptr) {
        EventServerSource::Stop();
        thread.Finish();
    }
}

void EventServerSource::Configure(const core::IniFile::Group& group) {
    EventSource::Configure(group);
    Log().Information("Configuring EventServer");
    if (!SettingsReader(group).TryRead(keys.Text("Path"), fifoPath)) {
        Log().Debug("Could not find fifo Path, using default");
    }
    Log().Information("Creating FIFO: %s", fifoPath.c_str());
    // Whatever is wrong with the path, opening it will tell.
    static_cast<void>(mkfifo(fifoPath.c_str(), fifoMode));
    Log().Information("Configured EventServer");
}

bool EventServerSource::IsConfigured() const {
    return true;
}

void EventServerSource::AddHandler(EventHandler* handler, const std::string& eventId) {
    const osa::MutexAutoLock lock(*handlersMapLock);
    Log().Debug("\t\tEventServerSource::AddHandler: Adding handler to event: %s", eventId.c_str());
    handlersByEventId[eventId].push_back(handler);
}

void EventServerSource::StartListening() {
    if (!IsConfigured()) {
        throw osa::Exception("EventServerSource::StartListening not configured");
    }
    if (GetCurrentThread() != nullptr) {
        throw osa::Exception("EventServerSource::StartListening already running");
    }
    thread.Start("EventServerSource", *this);
    Log().Information("EventServerSource started");
}

void EventServerSource::StopListening() {
    Stop();
    thread.Finish();
    Log().Information("EventServerSource stopped");
}

std::string EventServerSource::ToString() const {
    return "EventSource{server}";
}

void EventServerSource::Run() {
    const ListeningThread::LatchOpener opener(thread);
    const int fd = OpenFifo();
    running = true;
    thread.OpenLatch();
    // Made when there is something to read: its locale maps 300 KiB of the C++ library.
    std::optional<FdInputStream> stream;
    std::string line;
    PostedBlock block;
    while (running) {
        try {
            if (WaitForInput(fd)) {
                ReceiveEvent(stream ? *stream : stream.emplace(fd), line, block);
            }
        } catch (const osa::Signal& signal) {
            Log().Debug("%s", signal.what());
            running = false;
        } catch (const osa::Exception& exception) {
            Log().Error("%s", exception.what());
        }
    }
    Log().Debug("DONE");
    Log().Information("Exiting eventserversource run loop.");
}

/** Read and write, so that the pipe never reports an end when the last writer has gone. The caller never closes it. */
int EventServerSource::OpenFifo() const {
    Log().Information("Opening FIFO: %s", fifoPath.c_str());
    const int fd = open(fifoPath.c_str(), O_RDWR | O_NONBLOCK);
    // A descriptor that fits no fd_set would corrupt the stack.
    if (fd >= FD_SETSIZE) {
        close(fd);
    }
    if (fd < 0 || fd >= FD_SETSIZE) {
        throw osa::Exception("Unable to open FIFO for reading");
    }
    return fd;
}

void EventServerSource::ReceiveEvent(FdInputStream& stream, std::string& line, PostedBlock& block) {
    block.Begin();
    if (!ReadBlock(stream, line, block)) {
        Log().Warning("EventServerSource: event dropped, its writer goes on at a stop");
    } else if (!block.IsGivenUp() && !block.GetEventType().empty()) {
        FireReceived(block);
    }
}

/** Reads the lines of a block; false if a stop came before their end. */
bool EventServerSource::ReadBlock(FdInputStream& stream, std::string& line, PostedBlock& block) {
    size_t taken = 0;
    bool isRestOfLine = false;
    while (running || taken <= mostBytesAfterStop) {
        const LineFound found = stream.ReadLine(line, PostedBlock::longestLine);
        if (found == LineFound::None) {
            return true;
        }
        taken += line.size() + 1;
        if (isRestOfLine || found != LineFound::Whole) {
            block.TakeTooLongLine();
            isRestOfLine = found == LineFound::Beginning;
            continue;
        }
        logger.Trace("Got line: %s", line.c_str());
        if (!block.TakeLine(line)) {
            return true;
        }
    }
    return false;
}

void EventServerSource::FireReceived(PostedBlock& block) {
    const std::string& eventType = block.GetEventType();
    Event::Properties& properties = block.GetProperties();
    const auto region = eventType == "MotionDetection" ? properties.find("region") : properties.end();
    properties["eventId"] = region == properties.end() ? eventType : region->second;
    properties["eventType"] = eventType;
    block.CheckWrittenSize();
    if (block.IsGivenUp()) {
        return;
    }
    event::MotionEvent event(std::move(properties));
    logger.Information("EventServerSource: Received event: %s", eventType.c_str());
    FireEvent(event);
}

void EventServerSource::FireEvent(Event& event) {
    if (!IsConfigured()) {
        throw osa::Exception("EventServerSource: not configured");
    }
    if (!event.HasProperties()) {
        throw osa::Exception("EventServerSource: server improperly used");
    }
    const osa::MutexAutoLock lock(*handlersMapLock);
    logger.Debug("EventServerSource: Firing event through base class");
    EventSource::FireEvent(event);

    const auto property = event.GetProperties().find("eventId");
    const std::string eventId = property == event.GetProperties().end() ? std::string() : property->second;
    logger.Debug("EventServerSource: Event has eventID of: %s", eventId.c_str());
    if (eventId.empty()) {
        return;
    }
    for (EventHandler* handler : handlersByEventId[eventId]) {
        logger.Information("EventServerSource: Event %s is being fired", eventId.c_str());
        handler->HandleEvent(event);
    }
}

void EventServerSource::Stop() {
    Log().Debug("EventServerSource::Stop()");
    running = false;
    if (osa::Thread* const current = GetCurrentThread()) {
        current->Signal(SIGALRM);
    }
}

}  // namespace kelto::halvek::source
