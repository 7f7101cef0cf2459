#include "kelto/core/Logger.h"
#include "kelto/core/StringUtil.h"
#include "tests/fakes/RecordSocket.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/FreshProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <set>
#include <thread>

namespace kelto::core {

namespace {

constexpr const char* recordTime = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";

/** A pointer that ends the process if a record is formatted with it. */
const char* Unreadable() {
    static volatile uintptr_t address = 8;
    return reinterpret_cast<const char*>(address);
}

/** Local time to the millisecond, as a record has it. */
std::string LocalNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tzset();
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::array<char, 64> seconds{};
    strftime(seconds.data(), seconds.size(), "%Y-%m-%dT%H:%M:%S", &local);
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "%s.%03d", seconds.data(), static_cast<int>(now.tv_nsec / 1000000));
    return text.data();
}

/** The text of the one record that was written, without its head. */
std::string TextOf(const std::vector<std::string>& writes) {
    const std::string head = " Debug halvek: ";
    return writes.size() == 1 ? writes[0].substr(writes[0].find(head) + head.size()) : "not one write";
}

class LoggerTest : public testing::Test {
protected:
    LoggerTest() { Logger::SetLevels({.general = LogLevel::Trace, .byLogger = {}}); }
    ~LoggerTest() override { Logger::SetLevels({}); }

    const Logger& logger = Logger::GetLogger("halvek");
};

TEST_F(LoggerTest, ARecordIsTimeLevelLoggerAndTextOnALineOfItsOwn) {
    test::RecordSocket standardError;
    logger.Debug("text");
    EXPECT_THAT(standardError.TakeWrites(),
                ElementsAre(MatchesRegex(std::string(recordTime) + "Debug halvek: text\n")));
}

TEST_F(LoggerTest, EachLevelHasItsNameInTheRecord) {
    const test::LogCapture log;
    logger.Trace("a");
    logger.Debug("b");
    logger.Information("c");
    logger.Warning("d");
    logger.Error("e");
    EXPECT_THAT(log.Lines(), ElementsAre("Trace halvek: a", "Debug halvek: b", "Information halvek: c",
                                         "Warning halvek: d", "Error halvek: e"));
}

TEST_F(LoggerTest, TheTextIsFormattedAsPrintfDoes) {
    const test::LogCapture log;
    logger.Information("got: '%c' (%d) %s %.2f %%", 'R', 82, "x", 1.5);
    EXPECT_THAT(log.Lines(), ElementsAre("Information halvek: got: 'R' (82) x 1.50 %"));
}

TEST_F(LoggerTest, AnArgumentIsNeverAFormat) {
    const test::LogCapture log;
    logger.Information("%s", "%s%n%d");
    EXPECT_THAT(log.Lines(), ElementsAre("Information halvek: %s%n%d"));
}

TEST_F(LoggerTest, ARecordHasItsOwnLoggersName) {
    const test::LogCapture log;
    Logger::GetLogger("ParkEventSource").Warning("w");
    EXPECT_THAT(log.Lines(), ElementsAre("Warning ParkEventSource: w"));
}

TEST_F(LoggerTest, EachRecordIsOneWrite) {
    test::RecordSocket standardError;
    for (int number = 0; number < 50; ++number) {
        logger.Information("number %d", number);
    }
    const std::vector<std::string> writes = standardError.TakeWrites();
    ASSERT_THAT(writes, SizeIs(50));
    for (size_t number = 0; number < writes.size(); ++number) {
        EXPECT_THAT(writes[number], EndsWith(" Information halvek: number " + std::to_string(number) + "\n"));
    }
}

TEST_F(LoggerTest, LineBreaksAtTheEndAreDroppedAndThoseInsideAreFollowedByFourBlanks) {
    const struct {
        const char* text;
        const char* written;
    } table[] = {
        {"text\n", "text\n"},
        {"text\n\n\n", "text\n"},
        {"text\r\n", "text\n"},
        {"text\r\n\n\r\n", "text\n"},
        {"one\ntwo", "one\n    two\n"},
        {"", "\n"},
        {"one\n\ntwo\n", "one\n    \n    two\n"},
        {"\n", "\n"},
        {"\nlate", "\n    late\n"},
    };
    test::RecordSocket standardError;
    for (const auto& [text, written] : table) {
        logger.Debug("%s", text);
        EXPECT_EQ(TextOf(standardError.TakeWrites()), written) << text;
    }
}

TEST_F(LoggerTest, OtherControlCharactersButTheTabAreWrittenAsNumbers) {
    const struct {
        const char* text;
        const char* written;
    } table[] = {
        {"\x1b[31mred", "\\x1b[31mred\n"},
        {"a\rb", "a\\x0db\n"},
        {"at the end\r", "at the end\\x0d\n"},
        {"\r\r\n", "\\x0d\n"},
        {"\x7f", "\\x7f\n"},
        {"a\tb", "a\tb\n"},
        {"one\r\ntwo", "one\\x0d\n    two\n"},
        {"gr\xc3\xbc\xc3\x9f \x80\xff", "gr\xc3\xbc\xc3\x9f \x80\xff\n"},
        {"\x01\x1f ~", "\\x01\\x1f ~\n"},
        {"\\x1b", "\\x1b\n"},
    };
    test::RecordSocket standardError;
    for (const auto& [text, written] : table) {
        logger.Debug("%s", text);
        EXPECT_EQ(TextOf(standardError.TakeWrites()), written) << text;
    }
    logger.Debug("got: '%c'", '\0');
    EXPECT_EQ(TextOf(standardError.TakeWrites()), "got: '\\x00'\n");
}

TEST_F(LoggerTest, NoTextBeginsARecordOfItsOwn) {
    const test::LogCapture log;
    logger.Warning("value\n2026-11-21T03:40:00.123 Error halvek: forged");
    EXPECT_THAT(log.Records(), SizeIs(1));
}

TEST_F(LoggerTest, ARecordThatBecomesLongerThanItsBufferIsWhole) {
    test::RecordSocket standardError;
    for (size_t length = 180; length <= 260; ++length) {
        std::string written;
        for (size_t number = 0; number < length; ++number) {
            written += "x\n    ";
        }
        const std::string text = StringUtil::Replace(written, "    ", "");
        logger.Debug("%sx", text.c_str());
        EXPECT_EQ(TextOf(standardError.TakeWrites()), written + "x\n");
    }
}

TEST_F(LoggerTest, ARecordOfAnyLengthIsWholeAndOneWrite) {
    test::RecordSocket standardError;
    for (size_t length = 960; length <= 1060; ++length) {
        const std::string text(length, 'x');
        logger.Debug("%s", text.c_str());
        EXPECT_EQ(TextOf(standardError.TakeWrites()), text + "\n");
    }
    const std::string text(100000, 'y');
    logger.Debug("%s\n", text.c_str());
    EXPECT_EQ(TextOf(standardError.TakeWrites()), text + "\n");
}

TEST_F(LoggerTest, LineBreaksAtTheEndOfALongRecordAreDroppedToo) {
    test::RecordSocket standardError;
    const std::string text = std::string(1500, 'x') + "\n" + std::string(1500, 'y');
    logger.Debug("%s\r\n\n", text.c_str());
    const std::string written = std::string(1500, 'x') + "\n    " + std::string(1500, 'y') + "\n";
    EXPECT_EQ(TextOf(standardError.TakeWrites()), written);
}

TEST_F(LoggerTest, ALoggerNameLongerThanARecordsBufferDoesNoHarm) {
    test::RecordSocket standardError;
    const std::string name(3000, 'n');
    Logger::GetLogger(name.c_str()).Error("text");
    EXPECT_THAT(standardError.TakeWrites(),
                ElementsAre(MatchesRegex(std::string(recordTime) + "Error n{400}n{30,200}text\n")));
}

TEST_F(LoggerTest, ATextThatCannotBeFormattedLeavesAnEmptyRecord) {
    test::RecordSocket standardError;
    const wchar_t noCharacter[] = {static_cast<wchar_t>(0x7fffffff), L'\0'};
    logger.Debug("%ls", noCharacter);
    EXPECT_EQ(TextOf(standardError.TakeWrites()), "\n");
}

TEST_F(LoggerTest, RecordsBelowTheLevelAreNotWritten) {
    for (int level = 0; level < 5; ++level) {
        const test::LogCapture log(static_cast<LogLevel>(level));
        logger.Trace("0");
        logger.Debug("1");
        logger.Information("2");
        logger.Warning("3");
        logger.Error("4");
        EXPECT_THAT(log.Records(), SizeIs(static_cast<size_t>(5 - level)));
        EXPECT_EQ(log.Records().front().text, std::to_string(level));
    }
}

TEST_F(LoggerTest, ARecordBelowTheLevelIsNotFormatted) {
    const test::LogCapture log(LogLevel::Error);
    logger.Trace("%s", Unreadable());
    logger.Debug("%s", Unreadable());
    logger.Information("%s", Unreadable());
    logger.Warning("%s", Unreadable());
    EXPECT_THAT(log.Text(), IsEmpty());
}

TEST(LoggerProcess, TheLevelIsInformationAtFirst) {
    test::ExpectInFreshProcess([] {
        const test::EnvironmentVariable level("KELTO_LOG", std::nullopt);
        const Logger& fresh = Logger::GetLogger("halvek");
        EXPECT_TRUE(fresh.IsEnabled(LogLevel::Information));
        EXPECT_FALSE(fresh.IsEnabled(LogLevel::Debug));
    });
}

TEST_F(LoggerTest, ALoggerMayHaveALevelOfItsOwn) {
    const test::LogCapture log;
    const Logger& before = Logger::GetLogger("LoggerTest.before");
    Logger::SetLevels({.general = LogLevel::Warning,
                       .byLogger = {{"LoggerTest.before", LogLevel::Debug}, {"LoggerTest.after", LogLevel::Error}}});
    const Logger& after = Logger::GetLogger("LoggerTest.after");
    EXPECT_TRUE(before.IsEnabled(LogLevel::Debug));
    EXPECT_FALSE(before.IsEnabled(LogLevel::Trace));
    EXPECT_FALSE(after.IsEnabled(LogLevel::Warning));
    EXPECT_TRUE(after.IsEnabled(LogLevel::Error));
    EXPECT_FALSE(logger.IsEnabled(LogLevel::Information));
    EXPECT_TRUE(logger.IsEnabled(LogLevel::Warning));
}

TEST_F(LoggerTest, ALevelOfItsOwnEndsWithTheNextLevels) {
    Logger::SetLevels({.general = LogLevel::Error, .byLogger = {{"halvek", LogLevel::Trace}}});
    Logger::SetLevels({.general = LogLevel::Warning, .byLogger = {}});
    EXPECT_FALSE(logger.IsEnabled(LogLevel::Information));
    EXPECT_TRUE(logger.IsEnabled(LogLevel::Warning));
}

TEST(LoggerProcess, TheEnvironmentsLevelWinsOverAllOthers) {
    test::ExpectInFreshProcess([] {
        const test::EnvironmentVariable level("KELTO_LOG", "warning");
        const Logger& before = Logger::GetLogger("before");
        Logger::SetLevels({.general = LogLevel::Trace, .byLogger = {{"before", LogLevel::Error}}});
        const Logger& after = Logger::GetLogger("after");
        for (const Logger* const fresh : {&before, &after}) {
            EXPECT_FALSE(fresh->IsEnabled(LogLevel::Information)) << fresh->GetName();
            EXPECT_TRUE(fresh->IsEnabled(LogLevel::Warning)) << fresh->GetName();
        }
    });
}

TEST(LoggerProcess, ABadLevelInTheEnvironmentIsAWarningAndCountsAsNone) {
    test::ExpectInFreshProcess([] {
        const test::EnvironmentVariable level("KELTO_LOG", "Loud%s");
        test::RecordSocket standardError;
        const Logger& fresh = Logger::GetLogger("halvek");
        EXPECT_THAT(standardError.TakeWrites(),
                    ElementsAre(EndsWith(" Warning kelto.core: KELTO_LOG names no log level: Loud%s\n")));
        Logger::SetLevels({.general = LogLevel::Error, .byLogger = {}});
        EXPECT_FALSE(fresh.IsEnabled(LogLevel::Warning));
    });
}

TEST(LoggerProcess, AnEmptyLevelInTheEnvironmentCountsAsNone) {
    test::ExpectInFreshProcess([] {
        const test::EnvironmentVariable level("KELTO_LOG", "");
        test::RecordSocket standardError;
        EXPECT_FALSE(Logger::GetLogger("halvek").IsEnabled(LogLevel::Debug));
        EXPECT_THAT(standardError.TakeWrites(), IsEmpty());
    });
}

TEST(LoggerProcess, RecordsHaveLocalTime) {
    for (const std::string zone : {"UTC0", "XXX-05:45", "XXX09:30", "XXX-14", "XXX12"}) {
        SCOPED_TRACE(zone);
        test::ExpectInFreshProcess([&zone] {
            const test::EnvironmentVariable timeZone("TZ", zone);
            test::RecordSocket standardError;
            const std::string before = LocalNow();
            Logger::GetLogger("halvek").Error("x");
            const std::string after = LocalNow();
            const std::vector<std::string> writes = standardError.TakeWrites();
            ASSERT_THAT(writes, SizeIs(1));
            const std::string time = writes[0].substr(0, before.size());
            EXPECT_LE(before, time);
            EXPECT_LE(time, after);
        });
    }
}

TEST(LoggerProcess, TheWarningAboutTheEnvironmentHasLocalTimeToo) {
    test::ExpectInFreshProcess([] {
        const test::EnvironmentVariable level("KELTO_LOG", "Loud");
        const test::EnvironmentVariable timeZone("TZ", "XXX-05:45");
        test::RecordSocket standardError;
        const std::string before = LocalNow();
        Logger::GetLogger("halvek");
        const std::vector<std::string> writes = standardError.TakeWrites();
        ASSERT_THAT(writes, SizeIs(1));
        EXPECT_LE(before, writes[0].substr(0, before.size()));
    });
}

TEST_F(LoggerTest, ErrnoIsKept) {
    const test::RecordSocket standardError;
    const std::string longText(5000, 'x');
    errno = EBADMSG;
    logger.Error("short");
    EXPECT_EQ(errno, EBADMSG);
    logger.Error("%s", longText.c_str());
    EXPECT_EQ(errno, EBADMSG);
    errno = 0;
    logger.Error("%ls", L"\x7fffffff");
    EXPECT_EQ(errno, 0);
}

TEST_F(LoggerTest, ErrnoIsKeptAndNothingElseHappensWhenARecordCannotBeWritten) {
    const test::LogCapture log;
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    const int restored = dup(STDERR_FILENO);
    dup2(full, STDERR_FILENO);
    errno = EBADMSG;
    logger.Error("nowhere to go");
    EXPECT_EQ(errno, EBADMSG);
    close(STDERR_FILENO);
    logger.Error("nowhere to go");
    EXPECT_EQ(errno, EBADMSG);
    dup2(restored, STDERR_FILENO);
    close(full);
    close(restored);
    logger.Error("here again");
    EXPECT_THAT(log.Lines(), ElementsAre("Error halvek: here again"));
}

TEST(LoggerProcess, AfterShutdownRecordsAreDropped) {
    test::ExpectInFreshProcess([] {
        test::RecordSocket standardError;
        const Logger& fresh = Logger::GetLogger("halvek");
        fresh.Error("last");
        Logger::Shutdown();
        fresh.Error("late");
        Logger::GetLogger("new").Error("late");
        Logger::SetLevels({.general = LogLevel::Trace, .byLogger = {}});
        fresh.Error("late");
        EXPECT_THAT(standardError.TakeWrites(), ElementsAre(EndsWith(" Error halvek: last\n")));
    });
}

TEST_F(LoggerTest, ANameStandsForOneObject) {
    const std::string sameNameElsewhere = "halvek";
    EXPECT_EQ(&Logger::GetLogger(sameNameElsewhere.c_str()), &logger);
    EXPECT_NE(&Logger::GetLogger("halve"), &logger);
    EXPECT_NE(&Logger::GetLogger("halvek2"), &logger);
    EXPECT_NE(&Logger::GetLogger("Halvek"), &logger);
    EXPECT_EQ(logger.GetName(), "halvek");
}

TEST_F(LoggerTest, ManyThreadsThatAskForANameGetOneObject) {
    constexpr size_t threadCount = 8;
    constexpr size_t nameCount = 50;
    std::vector<std::vector<const Logger*>> found(threadCount);
    std::vector<std::thread> threads;
    for (std::vector<const Logger*>& mine : found) {
        threads.emplace_back([&mine] {
            for (size_t number = 0; number < nameCount; ++number) {
                mine.push_back(&Logger::GetLogger(("LoggerTest.many." + std::to_string(number)).c_str()));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(std::set<const Logger*>(found[0].begin(), found[0].end()), SizeIs(nameCount));
    EXPECT_THAT(found, Each(found[0]));
}

TEST_F(LoggerTest, RecordsOfManyThreadsDoNotMix) {
    constexpr int threadCount = 8;
    constexpr int recordCount = 200;
    const test::LogCapture log;
    std::vector<std::thread> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([number] {
            const std::string text(static_cast<size_t>(300 * number + 1), static_cast<char>('a' + number));
            for (int record = 0; record < recordCount; ++record) {
                Logger::GetLogger("halvek").Information("%s", text.c_str());
                if (record % 50 == 0) {
                    Logger::SetLevels({.general = LogLevel::Trace, .byLogger = {}});
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::map<std::string, int> counts;
    for (const std::string& line : log.Lines()) {
        ++counts[line];
    }
    EXPECT_THAT(counts, SizeIs(threadCount));
    for (int number = 0; number < threadCount; ++number) {
        const std::string text(static_cast<size_t>(300 * number + 1), static_cast<char>('a' + number));
        EXPECT_EQ(counts["Information halvek: " + text], recordCount);
    }
}

}  // namespace

}  // namespace kelto::core
