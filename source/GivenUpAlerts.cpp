#include "source/GivenUpAlerts.h"

#include "kelto/core/Logger.h"

#include <utility>

namespace kelto::halvek::source {

GivenUpAlerts::GivenUpAlerts(Clock::duration leastPause)
    : logger(core::Logger::GetLogger("kelto.msgbus")), pause(leastPause) {}

void GivenUpAlerts::Tell() {
    if (count > 0 && Clock::now() >= next) {
        TellRest();
    }
}

void GivenUpAlerts::TellRest() {
    if (count > 0) {
        logger.Warning("%zu alerts of more than 60000 bytes were given up", std::exchange(count, 0));
        next = Clock::now() + pause;
    }
}

}  // namespace kelto::halvek::source
