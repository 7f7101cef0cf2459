#include "kelto/msgbus/ProviderCall.h"
#include "tests/fakes/ScriptedService.h"
#include "tests/support/PrivateBus.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <exception>
#include <string>
#include <thread>
#include <vector>

namespace {

thread_local bool armed = false;
thread_local size_t goodOnesLeft = 0;

}  // namespace

extern "C" void* __libc_calloc(size_t count, size_t size);

/** Stands in for the C library's, which calls it too. A sanitizer has one of its own. */
extern "C" void* calloc(size_t count, size_t size) {
    if (armed && goodOnesLeft-- == 0) {
        armed = false;
        return nullptr;
    }
    return __libc_calloc(count, size);
}

namespace kelto::msgbus {

namespace {

enum class Outcome { Answered, Failed, Undisturbed };

/** A thread's first call, with one allocation failing, the one after so many. */
Outcome CallOnAThread(size_t goodOnes) {
    Outcome outcome = Outcome::Failed;
    std::thread([&] {
        goodOnesLeft = goodOnes;
        armed = true;
        try {
            ProviderCall call("Test", "GetNames");
            call.Send();
            outcome = call.ReadStrings().size() == 1 ? Outcome::Answered : Outcome::Failed;
        } catch (const std::exception&) {
        }
        if (armed) {
            armed = false;
            outcome = Outcome::Undisturbed;
        }
    }).join();
    return outcome;
}

TEST(ProviderCallMemory, TheFirstCallOfAThreadFailsForWantOfMemoryAndTheProcessLives) {
    test::PrivateBus daemon;
    test::ScriptedService service("Test");
    service.Answer("GetNames", {std::vector<std::string>{"Local"}});
    size_t failures = 0;
    size_t goodOnes = 0;
    for (Outcome outcome = CallOnAThread(0); outcome != Outcome::Undisturbed; outcome = CallOnAThread(++goodOnes)) {
        failures += outcome == Outcome::Failed ? 1 : 0;
    }
    EXPECT_GT(failures, 0U);
}

}  // namespace

}  // namespace kelto::msgbus
