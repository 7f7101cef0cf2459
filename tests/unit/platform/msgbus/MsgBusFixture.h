#pragma once

#include "kelto/msgbus/MsgBus.h"
#include "tests/fakes/ScriptedService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PrivateBus.h"
#include "tests/unit/platform/msgbus/HeardMessages.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kelto::msgbus {

/** What anybody may say, and what only the owner of a name may. */
inline const MessageFilter anybody{.name = "Said", .domain = "com.zentu.test", .sender = "", .path = ""};
inline const MessageFilter owner{
    .name = "Said", .domain = "com.kelto.Speaker", .sender = "com.kelto.Speaker", .path = "/com/kelto/Speaker"};

/** A signal that passes the filter. */
inline test::BusSignal Said(const std::string& text, const MessageFilter& filter = anybody) {
    return {.path = filter.path.empty() ? "/com/zentu/test" : filter.path,
            .interface = filter.domain,
            .member = filter.name,
            .arguments = {text}};
}

/** Signals that say "0", "1" and so on. */
inline std::vector<test::BusSignal> SaidNumbers(size_t count) {
    std::vector<test::BusSignal> signals;
    for (size_t number = 0; number < count; ++number) {
        signals.push_back(Said(std::to_string(number)));
    }
    return signals;
}

/** The message bus on a bus of its own, and a service that speaks there as the owner of its name. */
class MsgBusTest : public ::testing::Test {
protected:
    const test::PrivateBus daemon;
    const test::LogCapture log{core::LogLevel::Warning};
    test::ScriptedService speaker{"Speaker"};
    HeardMessages heard;
    MsgBus bus;
};

}  // namespace kelto::msgbus
