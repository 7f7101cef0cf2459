#include "handler/ExternEventHandler.h"

#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/FileUtils.h"
#include "monitor/HandlerRegistry.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

namespace kelto::halvek::handler {

namespace {

constexpr const char* fifoDirectory = "/var/run/halvek";
constexpr const char* catchAllMarker = "halvek.any";
constexpr size_t leastFifos = 2;

std::unique_ptr<EventHandler> Create(HalvekEnv*) {
    return std::make_unique<ExternEventHandler>();
}

constexpr HandlerRegistration registration{"Extern", Create, 1};
[[gnu::init_priority(RegisterExtern)]] const HandlerRegistrar registrar(&registration);

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::string FormatBlock(const Event& event) {
    std::string block;
    block.append("[").append(event.GetEventType()).append("]\n");
    for (const auto& [key, value] : event.GetProperties()) {
        block.append(key).append("=").append(value).append("\n");
    }
    block.append(".\n");
    return block;
}

}  // namespace

ExternEventHandler::ExternEventHandler() : logger(core::Logger::GetLogger("halvek")) {}

bool ExternEventHandler::IsConfigured() const {
    return true;
}

void ExternEventHandler::PerformAction(Event& event) {
    try {
        if (!IsConfigured()) {
            throw osa::Exception("ExternEventHandler: not configured");
        }
        if (!event.HasProperties()) {
            throw osa::Exception("ExternEventHandler: handler improperly used");
        }
        WriteToAllFifos(event);
    } catch (const osa::Exception& exception) {
        logger.Error("%s", exception.what());
    } catch (...) {
        logger.Error("ExternEventHandler: Error, unknown exception caught");
    }
}

void ExternEventHandler::WriteToAllFifos(Event& event) {
    const std::string& eventType = event.GetEventType();
    logger.Debug("ExternEventHandler::PerformAction: Got event of type: %s", eventType.c_str());
    std::vector<std::string> fifos;
    osa::FileUtils::ListFiles(fifoDirectory, fifos);
    if (fifos.size() < leastFifos) {
        logger.Debug("ExternEventHandler::PerformAction: No FIFO's to use for event");
    }
    for (const std::string& fifo : fifos) {
        logger.Trace("ExternEventHandler::PerformAction: Found FIFO name: %s", fifo.c_str());
        if (Contains(fifo, eventType) || Contains(fifo, catchAllMarker)) {
            logger.Trace("ExternEventHandler::PerformAction: Firing to FIFO name: %s", fifo.c_str());
            WriteToFifo(fifo, event);
        }
    }
    logger.Debug("ExternEventHandler::PerformAction: Done firing to all FIFO's");
}

void ExternEventHandler::WriteToFifo(const std::string& fifoPath, Event& event) {
    logger.Debug("ExternEventHandler: Firing event with eventType: %s", event.GetEventType().c_str());
    const std::string block = FormatBlock(event);
    const int fd = open(fifoPath.c_str(), O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        throw osa::Exception("FIFO open() failed");
    }
    logger.Debug("ExternEventHandler: FIFO open() passed");
    const ssize_t written = write(fd, block.data(), block.size());
    // On a failed or short write the descriptor is left open, as it always was.
    if (written < 0) {
        throw osa::Exception("FIFO Write failed");
    }
    if (static_cast<size_t>(written) < block.size()) {
        throw osa::Exception("FIFO write failed to write all data, wrote: %d of %d", static_cast<int>(written),
                             static_cast<int>(block.size()));
    }
    logger.Debug("ExternEventHandler: External Event fired!");
    close(fd);
}

}  // namespace kelto::halvek::handler
