#include "kelto/core/LogOutput.h"
#include "kelto/core/Logger.h"
#include "tests/fakes/RecordSocket.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/FreshProcess.h"
#include "tests/support/Matchers.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

namespace kelto::core {

namespace {

using Fields = std::map<std::string, std::string>;

/** Reads the journal's wire form: "NAME=value\n", or "NAME\n", eight bytes of length, the value and "\n". */
Fields ParseFields(std::string datagram) {
    Fields fields;
    while (!datagram.empty()) {
        const size_t lineEnd = datagram.find('\n');
        const size_t equals = datagram.find('=');
        std::string name = datagram.substr(0, std::min(lineEnd, equals));
        uint64_t length = lineEnd - equals - 1;
        size_t begin = equals + 1;
        if (lineEnd < equals) {
            std::memcpy(&length, datagram.data() + lineEnd + 1, sizeof(length));
            begin = lineEnd + 1 + sizeof(length);
        }
        fields[name] = datagram.substr(begin, static_cast<size_t>(length));
        datagram.erase(0, begin + static_cast<size_t>(length) + 1);
    }
    return fields;
}

/** Listens where the journal does. */
class FakeJournal {
public:
    FakeJournal() : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        std::filesystem::create_directories("/run/systemd/journal");
        sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
        if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            ADD_FAILURE() << "this test needs a /run of its own: " << std::strerror(errno);
        }
    }
    ~FakeJournal() {
        close(fd);
        std::filesystem::remove_all("/run/systemd");
    }
    FakeJournal(const FakeJournal&) = delete;
    FakeJournal& operator=(const FakeJournal&) = delete;

    std::vector<Fields> TakeRecords() const {
        std::vector<Fields> records;
        std::string buffer(1 << 18, '\0');
        ssize_t count = 0;
        while ((count = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0) {
            records.push_back(ParseFields(buffer.substr(0, static_cast<size_t>(count))));
        }
        return records;
    }

private:
    const int fd;
};

std::string StreamOf(dev_t device, ino_t inode) {
    return std::to_string(device) + ":" + std::to_string(inode);
}

/** What the service manager would put into JOURNAL_STREAM if it had made the present standard error. */
std::string OwnStream() {
    struct stat status {};
    fstat(STDERR_FILENO, &status);
    return StreamOf(status.st_dev, status.st_ino);
}

TEST(LogOutput, RecordsGoToTheJournalWhenStandardErrorIsItsStream) {
    test::ExpectInFreshProcess([] {
        test::RecordSocket standardError;
        const test::EnvironmentVariable stream("JOURNAL_STREAM", OwnStream());
        const FakeJournal journal;
        Logger::GetLogger("halvek").Error("text %d\n", 1);
        EXPECT_THAT(journal.TakeRecords(),
                    ElementsAre(AllOf(Contains(Pair("MESSAGE", "text 1")), Contains(Pair("PRIORITY", "3")),
                                      Contains(Pair("LOGGER", "halvek")))));
        EXPECT_THAT(standardError.TakeWrites(), IsEmpty());
    });
}

TEST(LogOutput, EachLevelHasItsPriorityInTheJournal) {
    test::ExpectInFreshProcess([] {
        test::RecordSocket standardError;
        const test::EnvironmentVariable stream("JOURNAL_STREAM", OwnStream());
        const FakeJournal journal;
        const Logger& logger = Logger::GetLogger("halvek");
        Logger::SetLevels({.general = LogLevel::Trace, .byLogger = {}});
        logger.Trace("x");
        logger.Debug("x");
        logger.Information("x");
        logger.Warning("x");
        logger.Error("x");
        std::vector<std::string> priorities;
        for (Fields& record : journal.TakeRecords()) {
            priorities.push_back(record["PRIORITY"]);
        }
        EXPECT_THAT(priorities, ElementsAre("7", "7", "6", "4", "3"));
    });
}

TEST(LogOutput, TheJournalGetsLongAndManyLineTextsWhole) {
    test::ExpectInFreshProcess([] {
        test::RecordSocket standardError;
        const test::EnvironmentVariable stream("JOURNAL_STREAM", OwnStream());
        const FakeJournal journal;
        const Logger& logger = Logger::GetLogger("halvek");
        for (size_t length = 1000; length < 1030; ++length) {
            const std::string text = "one\n" + std::string(length, 'x');
            logger.Information("%s\r\n\n", text.c_str());
            EXPECT_THAT(journal.TakeRecords(), ElementsAre(Contains(Pair("MESSAGE", text))));
        }
        logger.Information("\n");
        EXPECT_THAT(journal.TakeRecords(), ElementsAre(Contains(Pair("MESSAGE", ""))));
    });
}

TEST(LogOutput, TheJournalGetsOnlyRecordsOfTheLevelAndErrnoIsKept) {
    test::ExpectInFreshProcess([] {
        test::RecordSocket standardError;
        const test::EnvironmentVariable stream("JOURNAL_STREAM", OwnStream());
        const Logger* logger = nullptr;
        {
            const FakeJournal journal;
            logger = &Logger::GetLogger("halvek");
            errno = EBADMSG;
            logger->Debug("too low");
            logger->Warning("seen");
            EXPECT_EQ(errno, EBADMSG);
            EXPECT_THAT(journal.TakeRecords(), ElementsAre(Contains(Pair("MESSAGE", "seen"))));
        }
        errno = EBADMSG;
        logger->Error("the journal is gone");
        EXPECT_EQ(errno, EBADMSG);
    });
}

TEST(LogOutput, AfterShutdownTheJournalGetsNothing) {
    test::ExpectInFreshProcess([] {
        test::RecordSocket standardError;
        const test::EnvironmentVariable stream("JOURNAL_STREAM", OwnStream());
        const FakeJournal journal;
        const Logger& logger = Logger::GetLogger("halvek");
        Logger::Shutdown();
        logger.Error("late");
        EXPECT_THAT(journal.TakeRecords(), IsEmpty());
    });
}

TEST(LogOutput, WithoutTheJournalsSocketRecordsGoToStandardError) {
    test::ExpectInFreshProcess([] {
        test::RecordSocket standardError;
        const test::EnvironmentVariable stream("JOURNAL_STREAM", OwnStream());
        Logger::GetLogger("halvek").Error("text");
        EXPECT_THAT(standardError.TakeWrites(), ElementsAre(EndsWith(" Error halvek: text\n")));
    });
}

/** Shows that a value of JOURNAL_STREAM, made by the function in the process that logs, is not for us. */
void ExpectStandardErrorIsUsed(const std::function<std::optional<std::string>()>& makeStream) {
    test::ExpectInFreshProcess([&] {
        test::RecordSocket standardError;
        const test::EnvironmentVariable stream("JOURNAL_STREAM", makeStream());
        const FakeJournal journal;
        Logger::GetLogger("halvek").Error("text");
        EXPECT_THAT(standardError.TakeWrites(), ElementsAre(EndsWith(" Error halvek: text\n")));
        EXPECT_THAT(journal.TakeRecords(), IsEmpty());
    });
}

TEST(LogOutput, WithoutTheEnvironmentsWordRecordsGoToStandardError) {
    ExpectStandardErrorIsUsed([] { return std::nullopt; });
}

TEST(LogOutput, AnotherInodeIsNotTheJournal) {
    ExpectStandardErrorIsUsed([] {
        struct stat status {};
        fstat(STDERR_FILENO, &status);
        return StreamOf(status.st_dev, status.st_ino + 1);
    });
}

TEST(LogOutput, AnotherDeviceIsNotTheJournal) {
    ExpectStandardErrorIsUsed([] {
        struct stat status {};
        fstat(STDERR_FILENO, &status);
        return StreamOf(status.st_dev + 1, status.st_ino);
    });
}

TEST(LogOutput, AMalformedStreamIsNotTheJournal) {
    for (const std::string behind : {":1", "x", ":"}) {
        SCOPED_TRACE(behind);
        ExpectStandardErrorIsUsed([&] { return OwnStream() + behind; });
    }
    for (const std::string whole : {"", "1", ":", "journal"}) {
        SCOPED_TRACE(whole);
        ExpectStandardErrorIsUsed([&] { return whole; });
    }
}

TEST(LogOutput, AClosedStandardErrorIsNotTheJournal) {
    test::ExpectInFreshProcess([] {
        const test::EnvironmentVariable stream("JOURNAL_STREAM", "0:0");
        const FakeJournal journal;
        close(STDERR_FILENO);
        Logger::GetLogger("halvek").Error("text");
        EXPECT_THAT(journal.TakeRecords(), IsEmpty());
    });
}

/** Standard error as a pipe whose reader takes what is there when it is told to, with a log of its own. */
class UnreadLog {
public:
    UnreadLog() : saved(dup(STDERR_FILENO)) {
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        dup2(ends[1], STDERR_FILENO);
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        output.emplace();
    }
    ~UnreadLog() {
        dup2(saved, STDERR_FILENO);
        for (const int fd : {saved, ends[0], ends[1]}) {
            close(fd);
        }
    }
    UnreadLog(const UnreadLog&) = delete;
    UnreadLog& operator=(const UnreadLog&) = delete;

    void Write(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list arguments;
        va_start(arguments, format);
        output->Write(LogLevel::Information, "halvek", format, arguments);
        va_end(arguments);
    }

    static void Fill() {
        while (::write(STDERR_FILENO, "x", 1) == 1) {
        }
    }

    std::string Read() const {
        std::string all;
        std::array<char, 65536> buffer{};
        for (ssize_t count = 0; (count = read(ends[0], buffer.data(), buffer.size())) > 0;) {
            all.append(buffer.data(), static_cast<size_t>(count));
        }
        return all;
    }

private:
    const int saved;
    std::array<int, 2> ends{};
    std::optional<LogOutput> output;
};

const std::string stamp = "[-0-9T:.]{23} ";
const std::string notice = " records were dropped, nobody reads standard error\n";

TEST(LogOutput, RecordsThatFoundNoRoomAreCountedBeforeTheNextThatFindsIt) {
    UnreadLog log;
    log.Write("zero");
    EXPECT_THAT(log.Read(), MatchesRegex(stamp + "Information halvek: zero\n"));
    UnreadLog::Fill();
    log.Write("one");
    log.Write("two");
    log.Read();
    log.Write("three");
    EXPECT_THAT(log.Read(),
                MatchesRegex(stamp + "Error kelto.core: 2" + notice + stamp + "Information halvek: three\n"));
    log.Write("four");
    EXPECT_THAT(log.Read(), MatchesRegex(stamp + "Information halvek: four\n")) << "they are told once";
}

TEST(LogOutput, ARecordThatWasCutEndsItsLineBeforeTheNextBegins) {
    UnreadLog log;
    log.Write("%s", std::string(1 << 20, 'x').c_str());
    log.Read();
    log.Write("next");
    EXPECT_THAT(log.Read(),
                MatchesRegex("\n" + stamp + "Error kelto.core: 1" + notice + stamp + "Information halvek: next\n"));
}

}  // namespace

}  // namespace kelto::core
