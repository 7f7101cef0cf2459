#include "kelto/osa/FileUtils.h"
#include "tests/fakes/FatNames.h"
#include "tests/support/Descriptors.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/MemoryMount.h"
#include "tests/support/TempDir.h"
#include "tests/support/Unprivileged.h"
#include "tests/support/WaitUntil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

namespace {

/** Asked by each fsync whether it succeeds. */
std::function<bool(int)> onSync;

/** Asked by each write how much of a size it takes; less than none is a signal that came before it took any. */
std::function<ssize_t(size_t)> onWrite;

/** Whether a file may not be made under a name that begins with a dot, as on a card mounted as msdos. */
std::atomic<bool> refusesDots = false;

bool BeginsWithDot(const char* path) {
    const char* const slash = std::strrchr(path, '/');
    return *(slash == nullptr ? path : slash + 1) == '.';
}

}  // namespace

// The program's own definitions stand before the C library's.
extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (refusesDots && (flags & O_CREAT) != 0 && BeginsWithDot(path)) {
        errno = EINVAL;
        return -1;
    }
    return openat(AT_FDCWD, path, flags, mode);
}

extern "C" int fsync(int fd) {
    if (onSync && !onSync(fd)) {
        errno = EIO;
        return -1;
    }
    return fdatasync(fd);
}

extern "C" ssize_t write(int fd, const void* data, size_t size) {
    const ssize_t taken = onWrite ? onWrite(size) : static_cast<ssize_t>(size);
    if (taken < 0) {
        errno = EINTR;
        return -1;
    }
    return syscall(SYS_write, fd, data, static_cast<size_t>(taken));
}

namespace kelto::osa {

namespace {

constexpr size_t megabyte = 1 << 20;

mode_t ModeOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

/** The process's umask for the length of a scope. */
class Umask {
public:
    explicit Umask(mode_t mask) : before(umask(mask)) {}
    ~Umask() { umask(before); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

private:
    const mode_t before;
};

class CopyFileTest : public testing::Test {
protected:
    CopyFileTest() { std::filesystem::create_directory(target); }

    /** The names that stand in the target's folder, hidden ones too. */
    std::vector<std::string> TargetNames() const {
        std::vector<std::string> paths;
        FileUtils::ListFiles(target, paths);
        for (std::string& path : paths) {
            path.erase(0, target.size() + 1);
        }
        return paths;
    }

    std::string InTarget(const std::string& name) const { return target + "/" + name; }

    const test::LogCapture log;
    const test::TempDir folder;
    const std::string target = folder.PathOf("target");
    const std::string source = folder.Write("source.jpg", "picture");
};

TEST_F(CopyFileTest, TheWholeFileStandsUnderTheNewName) {
    EXPECT_TRUE(FileUtils::CopyFile(source, InTarget("copy.jpg"), true));
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy.jpg")), "picture");
    EXPECT_EQ(test::ReadWholeFile(source), "picture");
    EXPECT_THAT(TargetNames(), ElementsAre("copy.jpg"));
}

TEST_F(CopyFileTest, FilesOfAnySizeAreWhole) {
    for (const size_t size : {size_t{0}, size_t{1}, size_t{16383}, size_t{16384}, size_t{16385}, 5 * megabyte + 7}) {
        std::string content(size, '\0');
        for (size_t at = 0; at < size; ++at) {
            content[at] = static_cast<char>(at * 31 / 7);
        }
        EXPECT_TRUE(FileUtils::CopyFile(folder.Write("sized", content), InTarget("copy"), true)) << size;
        EXPECT_EQ(test::ReadWholeFile(InTarget("copy")), content) << size;
    }
}

TEST_F(CopyFileTest, AnOldFileIsReplacedOnlyIfThatIsAllowed) {
    folder.Write("target/copy.jpg", "old");
    EXPECT_FALSE(FileUtils::CopyFile(source, InTarget("copy.jpg"), false));
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy.jpg")), "old");
    EXPECT_THAT(TargetNames(), ElementsAre("copy.jpg"));
    EXPECT_TRUE(FileUtils::CopyFile(source, InTarget("copy.jpg"), true));
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy.jpg")), "picture");
    EXPECT_THAT(TargetNames(), ElementsAre("copy.jpg"));
}

TEST_F(CopyFileTest, WithoutOverwritingANewNameIsWritten) {
    EXPECT_TRUE(FileUtils::CopyFile(source, InTarget("copy.jpg"), false));
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy.jpg")), "picture");
    EXPECT_THAT(TargetNames(), ElementsAre("copy.jpg"));
}

TEST_F(CopyFileTest, WithoutOverwritingADanglingLinkIsInTheWayToo) {
    std::filesystem::create_symlink("nowhere", InTarget("copy.jpg"));
    EXPECT_FALSE(FileUtils::CopyFile(source, InTarget("copy.jpg"), false));
    EXPECT_TRUE(std::filesystem::is_symlink(InTarget("copy.jpg")));
}

TEST_F(CopyFileTest, TheModeIs0666LessTheUmaskWhateverTheSourcesIs) {
    for (const mode_t sourceMode : {0400U, 0755U}) {
        ASSERT_EQ(chmod(source.c_str(), sourceMode), 0);
        for (const mode_t mask : {0000U, 0022U, 0077U, 0111U}) {
            const Umask scope(mask);
            ASSERT_TRUE(FileUtils::CopyFile(source, InTarget("copy.jpg"), true));
            EXPECT_EQ(ModeOf(InTarget("copy.jpg")), 0666U & ~mask);
        }
    }
}

TEST_F(CopyFileTest, ANameOfFullLengthIsWritten) {
    const std::string name(NAME_MAX, 'x');
    EXPECT_TRUE(FileUtils::CopyFile(source, InTarget(name), true));
    EXPECT_TRUE(FileUtils::CopyFile(source, InTarget(name), true));
    EXPECT_THAT(TargetNames(), ElementsAre(name));
}

TEST_F(CopyFileTest, ANameThatIsTooLongFails) {
    EXPECT_FALSE(FileUtils::CopyFile(source, InTarget(std::string(NAME_MAX + 1, 'x')), true));
    EXPECT_FALSE(FileUtils::CopyFile(source, InTarget(std::string(NAME_MAX + 1, 'x')), false));
    EXPECT_EQ(log.Text(), "") << "the caller may have another name";
    EXPECT_THAT(TargetNames(), IsEmpty());
}

TEST_F(CopyFileTest, ANameWithoutFolderIsInTheCurrentOne) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(target);
    EXPECT_TRUE(FileUtils::CopyFile("../source.jpg", "copy.jpg", true));
    std::filesystem::current_path(before);
    EXPECT_THAT(TargetNames(), ElementsAre("copy.jpg"));
}

TEST_F(CopyFileTest, AFileMayBeCopiedOntoItself) {
    EXPECT_TRUE(FileUtils::CopyFile(source, source, true));
    EXPECT_EQ(test::ReadWholeFile(source), "picture");
}

TEST_F(CopyFileTest, ALinkIsFollowedAtTheSourceAndReplacedAtTheTarget) {
    std::filesystem::create_symlink(source, folder.PathOf("link"));
    folder.Write("other", "other");
    std::filesystem::create_symlink("../other", InTarget("copy.jpg"));
    EXPECT_TRUE(FileUtils::CopyFile(folder.PathOf("link"), InTarget("copy.jpg"), true));
    EXPECT_FALSE(std::filesystem::is_symlink(InTarget("copy.jpg")));
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy.jpg")), "picture");
    EXPECT_EQ(test::ReadWholeFile(folder.PathOf("other")), "other");
}

TEST_F(CopyFileTest, AFileWhoseSizeIsNotKnownBeforehandIsWhole) {
    EXPECT_TRUE(FileUtils::CopyFile("/proc/self/cmdline", InTarget("copy"), true));
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy")), test::ReadWholeFile("/proc/self/cmdline"));
}

TEST_F(CopyFileTest, ASourceThatIsNoReadableRegularFileFailsAndLeavesNothing) {
    ASSERT_EQ(mkfifo(folder.PathOf("fifo").c_str(), 0600), 0);
    std::filesystem::create_symlink("nowhere", folder.PathOf("dangling"));
    const std::string closed = folder.Write("closed", "secret");
    ASSERT_EQ(chmod(closed.c_str(), 0), 0);
    const test::Unprivileged unprivileged;
    for (const std::string& from : {folder.PathOf("fifo"), folder.PathOf("missing"), folder.PathOf("dangling"), target,
                                    closed, std::string("/dev/zero"), std::string(), source + "/below"}) {
        EXPECT_FALSE(FileUtils::CopyFile(from, InTarget("copy.jpg"), true)) << from;
        EXPECT_FALSE(FileUtils::CopyFile(from, InTarget("copy.jpg"), false)) << from;
        EXPECT_THAT(TargetNames(), IsEmpty()) << from;
    }
}

TEST_F(CopyFileTest, WhyASourceCannotBeReadIsLogged) {
    FileUtils::CopyFile(folder.PathOf("missing"), InTarget("copy.jpg"), true);
    FileUtils::CopyFile(target, InTarget("copy.jpg"), true);
    EXPECT_THAT(log.Lines(),
                ElementsAre("Error kelto.osa: Cannot read " + folder.PathOf("missing") + ": No such file or directory",
                            "Error kelto.osa: Cannot read " + target + ": it is no regular file"));
}

TEST_F(CopyFileTest, ASourceWhoseReadingFailsLeavesNothingAndTheOldFileStays) {
    folder.Write("target/copy.jpg", "old");
    EXPECT_FALSE(FileUtils::CopyFile("/proc/self/mem", InTarget("copy.jpg"), true));
    EXPECT_THAT(log.Lines(), ElementsAre(StartsWith("Error kelto.osa: Cannot write " + InTarget("copy.jpg") + ": ")));
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy.jpg")), "old");
    EXPECT_THAT(TargetNames(), ElementsAre("copy.jpg"));
}

TEST_F(CopyFileTest, AFolderInTheWayFailsAndStays) {
    std::filesystem::create_directory(InTarget("empty"));
    std::filesystem::create_directory(InTarget("full"));
    folder.Write("target/full/file", "");
    for (const char* name : {"empty", "full", "empty/", "full/"}) {
        EXPECT_FALSE(FileUtils::CopyFile(source, InTarget(name), true)) << name;
        EXPECT_FALSE(FileUtils::CopyFile(source, InTarget(name), false)) << name;
    }
    EXPECT_THAT(TargetNames(), ElementsAre("empty", "full"));
    EXPECT_TRUE(std::filesystem::is_empty(InTarget("empty")));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(InTarget("full")), {}), 1);
}

TEST_F(CopyFileTest, ATargetFolderThatIsNotThereOrIsAFileFails) {
    EXPECT_FALSE(FileUtils::CopyFile(source, folder.PathOf("nowhere/copy.jpg"), true));
    EXPECT_FALSE(FileUtils::CopyFile(source, source + "/copy.jpg", true));
    EXPECT_FALSE(FileUtils::CopyFile(source, "", true));
    EXPECT_FALSE(std::filesystem::exists(folder.PathOf("nowhere")));
}

TEST_F(CopyFileTest, AFolderThatMayNotBeWrittenFails) {
    ASSERT_EQ(chmod(target.c_str(), 0500), 0);
    const test::Unprivileged unprivileged;
    EXPECT_FALSE(FileUtils::CopyFile(source, InTarget("copy.jpg"), true));
    EXPECT_THAT(TargetNames(), IsEmpty());
}

TEST_F(CopyFileTest, AReadOnlyFileSystemFails) {
    test::MemoryMount card(target);
    folder.Write("target/copy.jpg", "old");
    card.MakeReadOnly();
    EXPECT_FALSE(FileUtils::CopyFile(source, InTarget("copy.jpg"), true));
    EXPECT_FALSE(FileUtils::CopyFile(source, InTarget("new.jpg"), false));
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy.jpg")), "old");
    EXPECT_THAT(TargetNames(), ElementsAre("copy.jpg"));
    const std::string failure = "Error kelto.osa: Cannot write into " + target + ": Read-only file system";
    EXPECT_THAT(log.Lines(), ElementsAre(failure, failure));
}

TEST_F(CopyFileTest, AFullFileSystemFailsLeavesNothingAndTheOldFileStays) {
    const test::MemoryMount card(target, "size=64k");
    folder.Write("target/copy.jpg", "old");
    const std::string large = folder.Write("large", std::string(megabyte, 'x'));
    EXPECT_FALSE(FileUtils::CopyFile(large, InTarget("copy.jpg"), true));
    EXPECT_FALSE(FileUtils::CopyFile(large, InTarget("new.jpg"), false));
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy.jpg")), "old");
    EXPECT_THAT(TargetNames(), ElementsAre("copy.jpg"));
    EXPECT_TRUE(FileUtils::CopyFile(source, InTarget("small.jpg"), true));
    EXPECT_THAT(log.Lines(),
                ElementsAre("Error kelto.osa: Cannot write " + InTarget("copy.jpg") + ": No space left on device",
                            "Error kelto.osa: Cannot write " + InTarget("new.jpg") + ": No space left on device"));
}

TEST_F(CopyFileTest, TheContentIsOnTheDiskBeforeTheNameIs) {
    folder.Write("target/copy.jpg", "old");
    std::vector<std::string> synced;
    onSync = [&](int fd) {
        const std::string path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
        synced.push_back(test::ReadWholeFile(path));
        EXPECT_EQ(test::ReadWholeFile(InTarget("copy.jpg")), "old");
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC) << "a command that is started meanwhile inherits nothing of it";
        return true;
    };
    EXPECT_TRUE(FileUtils::CopyFile(source, InTarget("copy.jpg"), true));
    onSync = nullptr;
    EXPECT_THAT(synced, ElementsAre("picture"));
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy.jpg")), "picture");
}

TEST_F(CopyFileTest, WhatAWriteDoesNotTakeTheNextOneDoes) {
    std::string content(50000, '\0');
    for (size_t at = 0; at < content.size(); ++at) {
        content[at] = static_cast<char>(at * 31 / 7);
    }
    const std::string large = folder.Write("large", content);
    int count = 0;
    onWrite = [&](size_t size) { return ++count % 3 == 0 ? -1 : static_cast<ssize_t>(std::min<size_t>(size, 1000)); };
    EXPECT_TRUE(FileUtils::CopyFile(large, InTarget("copy"), true));
    // A disk that takes nothing at all is full, whatever it says.
    onWrite = [](size_t) { return ssize_t{0}; };
    EXPECT_FALSE(FileUtils::CopyFile(large, InTarget("none"), true));
    onWrite = nullptr;
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy")), content);
    EXPECT_THAT(TargetNames(), ElementsAre("copy"));
}

TEST_F(CopyFileTest, ADiskThatDoesNotTakeTheContentFailsLeavesNothingAndTheOldFileStays) {
    folder.Write("target/copy.jpg", "old");
    onSync = [](int) { return false; };
    EXPECT_FALSE(FileUtils::CopyFile(source, InTarget("copy.jpg"), true));
    onSync = nullptr;
    EXPECT_THAT(log.Lines(),
                ElementsAre("Error kelto.osa: Cannot write " + InTarget("copy.jpg") + ": Input/output error"));
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy.jpg")), "old");
    EXPECT_THAT(TargetNames(), ElementsAre("copy.jpg"));
}

TEST_F(CopyFileTest, HiddenNamesLeftByAnEarlierProcessOfTheSameIdAreInNobodysWay) {
    // More than this process can have given so far.
    constexpr int count = 1000;
    std::vector<std::string> names;
    for (int number = 0; number < count; ++number) {
        names.push_back("." + std::to_string(getpid()) + "-" + std::to_string(number));
        folder.Write("target/" + names.back(), "left over");
    }
    EXPECT_TRUE(FileUtils::CopyFile(source, InTarget("copy.jpg"), true));
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy.jpg")), "picture");
    EXPECT_EQ(TargetNames().size(), names.size() + 1);
    for (const std::string& name : names) {
        EXPECT_EQ(test::ReadWholeFile(InTarget(name)), "left over") << name;
    }
}

TEST_F(CopyFileTest, ANameWithACharacterThatTheFileSystemHasNoPlaceForFailsWithoutARecord) {
    const test::FatNames fat;
    EXPECT_FALSE(FileUtils::CopyFile(source, InTarget("12:30.jpg"), true));
    EXPECT_EQ(log.Text(), "") << "the caller may have another name";
    EXPECT_THAT(TargetNames(), IsEmpty());
    EXPECT_TRUE(FileUtils::CopyFile(source, InTarget("12_30.jpg"), true));
}

/** Has the system refuse names that begin with a dot for the length of a scope, and nobody asked by fsync behind it. */
class NoDotNames {
public:
    NoDotNames() { refusesDots = true; }
    ~NoDotNames() {
        refusesDots = false;
        onSync = nullptr;
    }
    NoDotNames(const NoDotNames&) = delete;
    NoDotNames& operator=(const NoDotNames&) = delete;
};

TEST_F(CopyFileTest, WhereNoNameBeginsWithADotItIsWrittenUnderAnotherShortOne) {
    const NoDotNames msdos;
    std::vector<std::string> meanwhile;
    onSync = [&](int) {
        meanwhile = TargetNames();
        return true;
    };
    EXPECT_TRUE(FileUtils::CopyFile(source, InTarget("12_30_45.jpg"), true));
    EXPECT_THAT(meanwhile, ElementsAre(MatchesRegex("h[0-9a-f]{7}\\.tmp")));
    EXPECT_THAT(TargetNames(), ElementsAre("12_30_45.jpg"));
    EXPECT_EQ(log.Text(), "");
}

TEST_F(CopyFileTest, WhereNoNameBeginsWithADotAFailureLeavesNothingBehindEither) {
    const NoDotNames msdos;
    onSync = [](int) { return false; };
    EXPECT_FALSE(FileUtils::CopyFile(source, InTarget("copy.jpg"), true));
    EXPECT_THAT(TargetNames(), IsEmpty());
}

TEST_F(CopyFileTest, WhatAPowerCutLeftUnderAShortNameIsInNobodysWay) {
    const NoDotNames msdos;
    std::string leftOver;
    onSync = [&](int) {
        leftOver = TargetNames().front();
        return true;
    };
    ASSERT_TRUE(FileUtils::CopyFile(source, InTarget("first.jpg"), true));
    // The name that the next copy would take.
    const unsigned next = static_cast<unsigned>(std::stoul(leftOver.substr(1, 7), nullptr, 16)) + 1;
    std::array<char, 16> name{};
    std::snprintf(name.data(), name.size(), "h%07x.tmp", next & 0xfffffff);
    std::ofstream(InTarget(name.data())) << "left over";
    EXPECT_TRUE(FileUtils::CopyFile(source, InTarget("second.jpg"), true));
    EXPECT_EQ(test::ReadWholeFile(InTarget(name.data())), "left over");
}

TEST_F(CopyFileTest, WithoutADescriptorItFails) {
    const std::string from = source;
    const std::string to = InTarget("copy.jpg");
    for (const size_t left : {0U, 1U}) {
        bool copied = true;
        {
            // Nothing else in here: the sanitizer's own checks want a descriptor.
            const test::FewDescriptorsLeft few(left);
            copied = FileUtils::CopyFile(from, to, true);
        }
        EXPECT_FALSE(copied);
    }
    EXPECT_THAT(TargetNames(), IsEmpty());
}

TEST_F(CopyFileTest, ItKeepsNoDescriptor) {
    const std::vector<int> before = test::OpenDescriptors();
    FileUtils::CopyFile(source, InTarget("copy.jpg"), true);
    FileUtils::CopyFile(source, InTarget("copy.jpg"), false);
    FileUtils::CopyFile(source, target, true);
    FileUtils::CopyFile("/proc/self/mem", InTarget("copy.jpg"), true);
    FileUtils::CopyFile(target, InTarget("copy.jpg"), true);
    EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST_F(CopyFileTest, AReaderOfTheOldFileReadsItToItsEnd) {
    folder.Write("target/copy.jpg", "the old picture");
    std::ifstream reader(InTarget("copy.jpg"));
    ASSERT_TRUE(FileUtils::CopyFile(source, InTarget("copy.jpg"), true));
    std::string line;
    std::getline(reader, line);
    EXPECT_EQ(line, "the old picture");
}

TEST_F(CopyFileTest, NoReaderEverSeesHalfAFile) {
    const std::string pictures[] = {std::string(megabyte, 'a'), std::string(megabyte / 2, 'b')};
    const std::string sources[] = {folder.Write("a", pictures[0]), folder.Write("b", pictures[1])};
    std::atomic<bool> done = false;
    std::thread writer([&] {
        for (int round = 0; round < 60; ++round) {
            EXPECT_TRUE(FileUtils::CopyFile(sources[round % 2], InTarget("copy.jpg"), true));
        }
        done = true;
    });
    ASSERT_TRUE(test::WaitUntil([&] { return std::filesystem::exists(InTarget("copy.jpg")); }));
    int reads = 0;
    while (!done) {
        const std::string seen = test::ReadWholeFile(InTarget("copy.jpg"));
        EXPECT_TRUE(seen == pictures[0] || seen == pictures[1]) << seen.size();
        ++reads;
    }
    writer.join();
    EXPECT_GT(reads, 0);
    EXPECT_THAT(TargetNames(), ElementsAre("copy.jpg"));
}

TEST_F(CopyFileTest, UntilItIsDoneThereIsOnlyAShortHiddenName) {
    const std::string large = folder.Write("large", std::string(64 * megabyte, 'x'));
    const pid_t child = fork();
    if (child == 0) {
        FileUtils::CopyFile(large, InTarget(std::string(NAME_MAX, 'x')), true);
        _exit(0);
    }
    ASSERT_TRUE(test::WaitUntil([&] { return !TargetNames().empty(); }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    const std::vector<std::string> names = TargetNames();
    ASSERT_THAT(names, ElementsAre(StartsWith(".")));
    EXPECT_LT(names[0].size(), 32U);
    EXPECT_TRUE(FileUtils::CopyFile(source, InTarget("copy.jpg"), true));
}

TEST_F(CopyFileTest, ManyThreadsMayCopyIntoOneFolder) {
    std::vector<std::thread> threads;
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([this, number] {
            for (int round = 0; round < 20; ++round) {
                EXPECT_TRUE(FileUtils::CopyFile(source, InTarget("copy" + std::to_string(number % 2)), true));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(TargetNames(), ElementsAre("copy0", "copy1"));
    EXPECT_EQ(test::ReadWholeFile(InTarget("copy0")), "picture");
}

}  // namespace

}  // namespace kelto::osa
