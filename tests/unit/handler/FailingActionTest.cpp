#include "event/TimerEvent.h"
#include "handler/EmailEventHandler.h"
#include "handler/ExternEventHandler.h"
#include "handler/FolderEventHandler.h"
#include "handler/FtpEventHandler.h"
#include "kelto/osa/Exception.h"
#include "tests/fakes/ProgramsOnPath.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kelto::halvek::handler {

namespace {

template <typename Base>
class OddHandler : public Base {
public:
    explicit OddHandler(std::function<bool()> answer) : isConfigured(std::move(answer)) {}
    bool IsConfigured() const override { return isConfigured(); }

private:
    const std::function<bool()> isConfigured;
};

struct Extern {
    using Handler = ExternEventHandler;
    static constexpr const char* name = "ExternEventHandler";
};

struct Folder {
    using Handler = FolderEventHandler;
    static constexpr const char* name = "FolderEventHandler";
};

struct Ftp {
    using Handler = FtpEventHandler;
    static constexpr const char* name = "FtpEventHandler";
};

struct Email {
    using Handler = EmailEventHandler;
    static constexpr const char* name = "EmailEventHandler";
};

/** The handlers that let nothing out of an action. The first thing that an action asks is whether it is configured. */
template <typename Kind>
class FailingAction : public ::testing::Test {
protected:
    FailingAction() {
        for (const char* program : {"du", "esmtp", "find", "ftpput", "ls"}) {
            programs.WriteNoting(program);
        }
    }

    /** What an action logs that gets this answer; it must not run any program. */
    std::vector<std::string> LinesOf(const std::function<bool()>& answer) {
        OddHandler<typename Kind::Handler> handler(answer);
        log.Clear();
        for (const Event::Properties& properties : {Event::Properties{}, Event::Properties{{"eventType", "Timer"}}}) {
            event::TimerEvent event(properties);
            EXPECT_NO_THROW(handler.PerformAction(event));
        }
        EXPECT_EQ(programs.Notes(), "");
        return log.Lines();
    }

    const std::string source = std::string("Error halvek: ") + Kind::name;
    const test::ProgramsOnPath programs;
    test::LogCapture log;
};

using Kinds = ::testing::Types<Extern, Folder, Ftp, Email>;
TYPED_TEST_SUITE(FailingAction, Kinds);

TYPED_TEST(FailingAction, OfAnUnconfiguredOneLogsAnErrorAndThrowsNothing) {
    const std::string error = this->source + ": not configured";
    EXPECT_THAT(this->LinesOf([] { return false; }), ElementsAre(error, error));
}

TYPED_TEST(FailingAction, LogsTheTextOfAnExceptionAsItIs) {
    const std::string error = "Error halvek: 100% odd, %s";
    EXPECT_THAT(this->LinesOf([]() -> bool { throw osa::Exception("100%% odd, %s", "%s"); }),
                ElementsAre(error, error));
}

TYPED_TEST(FailingAction, CallsExceptionsOfOtherTypesUnknown) {
    const std::string error = this->source + ": Error, unknown exception caught";
    EXPECT_THAT(this->LinesOf([]() -> bool { throw std::runtime_error("text"); }), ElementsAre(error, error));
    EXPECT_THAT(this->LinesOf([]() -> bool { throw 42; }), ElementsAre(error, error));
}

}  // namespace

}  // namespace kelto::halvek::handler
