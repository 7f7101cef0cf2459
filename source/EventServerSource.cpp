#include "source/EventServerSource.h"

#include "event/MotionEvent.h"
#include "handler/EventHandler.h"
#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/MutexAutoLock.h"
#include "kelto/osa/Signal.h"
#include "source/FdInputStream.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <csignal>

namespace kelto::halvek::source {

namespace {

constexpr const char* defaultFifoPath = "/var/run/halvek.pipe";
/** 666 in decimal, 01232 in octal; the umask applies. Meant so: whoever wants others to post makes the pipe beforehand.
 */
constexpr mode_t fifoMode = 666;
constexpr time_t selectTimeoutSec = 5;

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

void ReadHeader(const std::string& line, std::string& eventType) {
    const size_t end = line.find(']');
    if (end == std::string::npos) {
        Log().Debug("\tFind didn't find a ]");
        return;
    }
    eventType = line.substr(1, end - 1);
    Log().Debug("\tEvent type: %s", eventType.c_str());
}

/** Takes one line in; false if it ends the event. An empty line throws std::out_of_range. */
bool ReadLine(const std::string& line, Event::Properties& properties, std::string& eventType) {
    const char first = line.at(0);
    if (first == '[') {
        ReadHeader(line, eventType);
        return true;
    }
    if (line == ".") {
        return false;
    }
    if (std::isalnum(static_cast<unsigned char>(first)) == 0) {
        return true;
    }
    const size_t equals = line.find('=');
    if (equals == std::string::npos) {
        return false;
    }
    properties[line.substr(0, equals)] = line.substr(equals + 1);
    return true;
}

}  // namespace

EventServerSource::EventServerSource()
    : handlersMapLock(std::make_unique<osa::Mutex>("EventServerSource::HandlersMapLock")) {}

EventServerSource::~EventServerSource() {
    if (GetCurrentThread() != nullptr) {
        EventServerSource::Stop();
        thread.Finish();
    }
}

void EventServerSource::Configure(const core::IniFile::Group& group) {
    EventSource::Configure(group);
    Log().Information("Configuring EventServer");
    try {
        fifoPath = core::IniFile::GetValueFromGroup(group, "Path");
    } catch (const osa::Exception&) {
        Log().Debug("Could not find fifo Path, using default");
        fifoPath = defaultFifoPath;
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
    std::string line;
    std::string eventType;
    while (running) {
        try {
            if (WaitForInput(fd)) {
                ReceiveEvent(fd, line, eventType);
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

void EventServerSource::ReceiveEvent(int fd, std::string& line, std::string& eventType) {
    const core::Logger& logger = Log();
    FdInputStream stream(fd);
    Event::Properties properties;
    while (std::getline(stream, line)) {
        logger.Trace("Got line: %s", line.c_str());
        if (!ReadLine(line, properties, eventType)) {
            break;
        }
    }
    line.clear();
    // The type outlives its event: a block without a header is of the type of the one before.
    if (!eventType.empty()) {
        FireReceived(properties, eventType);
    }
}

void EventServerSource::FireReceived(Event::Properties& properties, const std::string& eventType) {
    const auto region = properties.find("region");
    const bool hasRegion = eventType == "MotionDetection" && region != properties.end();
    properties["eventId"] = hasRegion ? region->second : eventType;
    properties["eventType"] = eventType;
    event::MotionEvent event(properties);
    Log().Information("EventServerSource: Received event: %s", eventType.c_str());
    FireEvent(event);
}

void EventServerSource::FireEvent(Event& event) {
    if (!IsConfigured()) {
        throw osa::Exception("EventServerSource: not configured");
    }
    if (!event.HasProperties()) {
        throw osa::Exception("EventServerSource: server improperly used");
    }
    const core::Logger& logger = Log();
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
