#include "handler/ExternEventHandler.h"

#include "env/HandlerRegistry.h"
#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/FileUtils.h"
#include "kelto/osa/PathUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <string_view>
#include <vector>

namespace kelto::halvek::handler {

namespace {

constexpr const char* fifoDirectory = "/var/run/halvek";
constexpr std::string_view catchAllMarker = "halvek.any";
constexpr size_t leastFifos = 2;

std::unique_ptr<EventHandler> Create(HalvekEnv*) {
    return std::make_unique<ExternEventHandler>();
}

constexpr HandlerRegistration registration{"Extern", Create, 1};
[[gnu::init_priority(RegisterExtern)]] const HandlerRegistrar registrar(&registration);

bool Contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

size_t BlockSize(const Event& event, const std::string& eventType) {
    size_t size = sizeof("[]\n.\n") - 1 + eventType.size();
    for (const auto& [key, value] : event.GetProperties()) {
        size += key.size() + value.size() + sizeof("=\n") - 1;
    }
    return size;
}

std::string FormatBlock(const Event& event, const std::string& eventType) {
    std::string block;
    block.reserve(BlockSize(event, eventType));
    block.append("[").append(eventType).append("]\n");
    for (const auto& [key, value] : event.GetProperties()) {
        block.append(key).append(1, '=').append(value).append(1, '\n');
    }
    block.append(".\n");
    return block;
}

using LinkTarget = std::array<char, PATH_MAX>;

/** Reads where a link of root or of the daemon's own user leads to; false for anybody else's. */
bool ReadTrustedLink(int link, LinkTarget& target) {
    struct stat status {};
    return fstat(link, &status) == 0 && (status.st_uid == 0 || status.st_uid == geteuid()) &&
           readlinkat(link, "", target.data(), target.size() - 1) > 0;
}

/**
 * Follows a link of root or of the daemon's own user only: all who may make pipes in the folder could have the daemon
 * write into its own event pipe, which never ends, or over its files. What is looked at is what is followed, even if
 * another link takes the name meanwhile.
 */
int OpenThroughLink(const std::string& path) {
    const int link = open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (link < 0) {
        return -1;
    }
    LinkTarget target{};
    const bool isTrusted = ReadTrustedLink(link, target);
    close(link);
    if (!isTrusted) {
        return -1;
    }
    const std::string aim =
        target.front() == '/' ? target.data() : osa::PathUtils::PathConcat(fifoDirectory, target.data());
    return open(aim.c_str(), O_RDWR | O_NONBLOCK);
}

int OpenFifo(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW);
    return fd < 0 && errno == ELOOP ? OpenThroughLink(path) : fd;
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
    std::string block;
    for (const std::string& fifo : fifos) {
        logger.Trace("ExternEventHandler::PerformAction: Found FIFO name: %s", fifo.c_str());
        if (Contains(fifo, eventType) || Contains(fifo, catchAllMarker)) {
            logger.Trace("ExternEventHandler::PerformAction: Firing to FIFO name: %s", fifo.c_str());
            logger.Debug("ExternEventHandler: Firing event with eventType: %s", eventType.c_str());
            if (block.empty()) {
                block = FormatBlock(event, eventType);
            }
            WriteToFifo(fifo, block);
        }
    }
    logger.Debug("ExternEventHandler::PerformAction: Done firing to all FIFO's");
}

void ExternEventHandler::WriteToFifo(const std::string& fifoPath, const std::string& block) {
    const int fd = OpenFifo(fifoPath);
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
