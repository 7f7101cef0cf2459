#include "kelto/inet/EmailMessage.h"
#include "kelto/inet/MailLoader.h"
#include "kelto/osa/PathUtils.h"
#include "tests/support/Descriptors.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/FreshProcess.h"
#include "tests/support/MailText.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <sstream>
#include <thread>
#include <vector>

namespace {

bool nothingStandsBeside = false;

}  // namespace

// The program's own definition stands before the C library's.
extern "C" int access(const char* path, int mode) noexcept {
    if (nothingStandsBeside) {
        errno = ENOENT;
        return -1;
    }
    return faccessat(AT_FDCWD, path, mode, 0);
}

namespace kelto::inet {

namespace {

constexpr const char* variable = "KELTO_MAIL_MODULE";

/** The path of a module that stands beside this program. */
std::string PathOf(const std::string& module) {
    return osa::PathUtils::PathConcat(osa::PathUtils::Dirname(osa::PathUtils::RealPath("/proc/self/exe")), module);
}

std::string PathOfModule() {
    return PathOf("kelto-mail.so");
}

std::string MemoryMap() {
    return test::ReadWholeFile("/proc/self/maps");
}

void WriteOne() {
    std::ostringstream stream;
    stream << EmailMessage("cam@x", "subject");
    EXPECT_EQ(test::MailText(stream.str()).Header("Subject"), "subject");
}

TEST(MailLoader, NothingIsLoadedBeforeTheFirstMailIsWritten) {
    test::ExpectInFreshProcess([] {
        EmailMessage message("cam@x", "s");
        message.AddRecipient("a@x", EmailMessage::Recipient::To);
        message.AddContent("text");
        message.Attach("/proc/self/comm");
        EXPECT_THAT(MemoryMap(), Not(HasSubstr("gmime")));
        EXPECT_THAT(MemoryMap(), Not(HasSubstr("kelto-mail.so")));
        WriteOne();
        EXPECT_THAT(MemoryMap(), HasSubstr("libgmime-3.0.so"));
        EXPECT_THAT(MemoryMap(), HasSubstr(PathOfModule()));
    });
}

/** The handlers of all signals. */
std::vector<sighandler_t> SignalHandlers() {
    std::vector<sighandler_t> handlers;
    for (int number = 1; number < SIGRTMAX; ++number) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        handlers.push_back(action.sa_handler);
    }
    return handlers;
}

TEST(MailLoader, TheLibraryChangesNeitherSignalsNorDescriptorsOfTheProcess) {
    test::ExpectInFreshProcess([] {
        ASSERT_EQ(SignalHandlers().at(SIGPIPE - 1), SIG_DFL);
        const std::vector<sighandler_t> handlers = SignalHandlers();
        const std::vector<int> descriptors = test::OpenDescriptors();
        WriteOne();
        EXPECT_EQ(SignalHandlers(), handlers);
        EXPECT_EQ(test::OpenDescriptors(), descriptors);
    });
}

TEST(MailLoader, TheEnvironmentMayNameAnotherModule) {
    const test::TempDir folder;
    const std::string copy = folder.Write("other.so", test::ReadWholeFile(PathOfModule()));
    const test::EnvironmentVariable named(variable, copy);
    test::ExpectInFreshProcess([] {
        const std::string path = std::getenv(variable);
        WriteOne();
        EXPECT_THAT(MemoryMap(), HasSubstr(path));
        EXPECT_THAT(MemoryMap(), Not(HasSubstr(PathOfModule())));
    });
}

TEST(MailLoader, AnEmptyVariableNamesNone) {
    test::ExpectInFreshProcess([] {
        const test::EnvironmentVariable named(variable, "");
        WriteOne();
    });
}

TEST(MailLoader, AMissingModuleIsAnExceptionAndTheNextMailTriesAgain) {
    test::ExpectInFreshProcess([] {
        {
            const test::EnvironmentVariable named(variable, "/nowhere/mail.so");
            EXPECT_THAT(WriteOne,
                        FailsWith(StrEq("Cannot load the mail library: /nowhere/mail.so: cannot open shared object "
                                        "file: No such file or directory")));
        }
        WriteOne();
    });
}

TEST(MailLoader, AModuleThatDoesNotStandBesideTheProgramIsLookedForWhereItIsInstalled) {
    test::ExpectInFreshProcess([] {
        nothingStandsBeside = true;
        EXPECT_THAT(WriteOne, FailsWith(AllOf(StartsWith("Cannot load the mail library: /"),
                                              HasSubstr("/kelto/kelto-mail.so: cannot open shared object"))));
    });
}

TEST(MailLoader, TheModuleNeverWorksForTwoThreadsAtOnce) {
    test::ExpectInFreshProcess([] {
        const test::EnvironmentVariable named(variable, PathOf("one-at-a-time.so"));
        std::vector<std::thread> threads;
        std::atomic<bool> wasAlone = true;
        for (int number = 0; number < 4; ++number) {
            threads.emplace_back([&] {
                for (int round = 0; round < 20; ++round) {
                    std::ostringstream stream;
                    stream << EmailMessage("cam@x", "s");
                    wasAlone = wasAlone && stream.str() == "alone";
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_TRUE(wasAlone);
    });
}

TEST(MailLoader, AModuleThatIsNoneIsAnException) {
    test::ExpectInFreshProcess([] {
        const test::TempDir folder;
        const test::EnvironmentVariable named(variable, folder.Write("mail.so", "no library"));
        EXPECT_THAT(WriteOne, FailsWith(StartsWith("Cannot load the mail library: ")));
    });
}

TEST(MailLoader, ALibraryWithoutTheFunctionsIsAnException) {
    test::ExpectInFreshProcess([] {
        const test::EnvironmentVariable named(variable, "libdl.so.2");
        EXPECT_THAT(WriteOne, FailsWith(HasSubstr("undefined symbol: kelto_mail_write")));
    });
}

}  // namespace

}  // namespace kelto::inet
