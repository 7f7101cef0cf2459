#include "kelto/osa/Runnable.h"
#include "kelto/osa/Thread.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"

#include <memory>
#include <stdexcept>
#include <string>

namespace kelto::osa {

namespace {

/** Throws an error that was made while there was memory. There is none from then on until the body is destroyed. */
class BodyWithoutMemory : public Runnable {
public:
    explicit BodyWithoutMemory(const std::string& text) : error(text) {}

    void Run() override {
        failing = std::make_unique<test::FailingAllocation>(0);
        throw std::runtime_error(error);
    }
    void Stop() override {}

private:
    const std::runtime_error error;
    std::unique_ptr<test::FailingAllocation> failing;
};

TEST(ThreadMemory, AnExceptionThatEndsAThreadIsLoggedWithoutMemoryToo) {
    const std::string text(3000, 'x');
    BodyWithoutMemory body(text);
    const test::LogCapture log(core::LogLevel::Error);
    {
        Thread thread("poor", body, 0, 0);
        thread.Run();
    }
    EXPECT_THAT(log.Lines(), ElementsAre("Error kelto.osa: Thread poor ended by an exception: " + text));
}

}  // namespace

}  // namespace kelto::osa
