#include "kelto/osa/Exception.h"
#include "kelto/settings/SettingsStore.h"
#include "tests/support/Descriptors.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/Matchers.h"
#include "tests/support/MemoryMount.h"
#include "tests/support/TempDir.h"
#include "tests/support/Unprivileged.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

namespace {

/** Told of each read, after it, how many bytes it has read. */
std::function<void(ssize_t)> onRead;

}  // namespace

// The program's own definition stands before the C library's.
extern "C" ssize_t read(int fd, void* buffer, size_t size) {
    const ssize_t count = syscall(SYS_read, fd, buffer, size);
    if (onRead) {
        onRead(count);
    }
    return count;
}

namespace kelto::settings {

namespace {

core::IniFile LoadFrom(const std::string& path) {
    const test::EnvironmentVariable store("KELTO_SETTINGS", path);
    return SettingsStore::Load();
}

/** Shows that a store cannot be read, and that the error names this path and this reason. */
void ExpectError(const std::string& store, const std::string& path, const std::string& reason) {
    EXPECT_THAT([&] { LoadFrom(store); }, FailsWith(AllOf(HasSubstr(path), HasSubstr(reason))));
}

TEST(SettingsStore, ReadsTheFileThatTheEnvironmentNames) {
    const test::TempDir folder;
    // Any name will do for a file that is named as such.
    const std::string file = folder.Write("settings", "[Events/Source#1]\nType=Timer\n");
    EXPECT_EQ(LoadFrom(file).GetValue("Events/Source#1", "Type"), "Timer");
}

/** Has something happen once, when the first bytes of a store have been read. */
class AfterTheFirstRead {
public:
    explicit AfterTheFirstRead(const std::function<void()>& action) {
        onRead = [action](ssize_t) {
            // It goes with the function that holds it.
            const std::function<void()> kept = action;
            onRead = nullptr;
            kept();
        };
    }
    ~AfterTheFirstRead() { onRead = nullptr; }
    AfterTheFirstRead(const AfterTheFirstRead&) = delete;
    AfterTheFirstRead& operator=(const AfterTheFirstRead&) = delete;
};

void SetTime(const std::string& file, time_t seconds) {
    const timespec times[] = {{seconds, 0}, {seconds, 0}};
    utimensat(AT_FDCWD, file.c_str(), times, 0);
}

TEST(SettingsStore, AFileThatGrowsWhileItIsReadIsReadAgain) {
    const test::TempDir folder;
    const std::string file = folder.Write("settings.ini", "[a]\nx=1\n");
    SetTime(file, 1000);
    const AfterTheFirstRead growing([&] {
        folder.Write("settings.ini", "[a]\nx=1\n[b]\n");
        SetTime(file, 1000);
    });
    EXPECT_THAT(LoadFrom(file).GetGroups(), ElementsAre(Key("a"), Key("b")));
}

TEST(SettingsStore, AFileThatIsWrittenInPlaceWhileItIsReadIsReadAgain) {
    const test::TempDir folder;
    const std::string file = folder.Write("settings.ini", "[a]\nx=1\n");
    SetTime(file, 1000);
    const AfterTheFirstRead writing([&] { folder.Write("settings.ini", "[a]\nx=2\n"); });
    EXPECT_EQ(LoadFrom(file).GetValue("a", "x"), "2");
}

TEST(SettingsStore, AFileThatIsReplacedWhileItIsReadIsReadAgain) {
    const test::TempDir folder;
    const std::string file = folder.Write("settings.ini", "[a]\nx=1\n");
    SetTime(file, 1000);
    const AfterTheFirstRead replacing([&] {
        const std::string beside = folder.Write("beside", "[a]\nx=2\n");
        SetTime(beside, 1000);
        std::filesystem::rename(beside, file);
    });
    EXPECT_EQ(LoadFrom(file).GetValue("a", "x"), "2");
}

TEST(SettingsStore, AFileThatDoesNotComeToRestIsReadFourTimesAndIsAnError) {
    const test::TempDir folder;
    const std::string file = folder.Write("settings.ini", "[a]\nx=1\n");
    time_t time = 1000;
    int ends = 0;
    onRead = [&](ssize_t count) {
        ends += count == 0 ? 1 : 0;
        SetTime(file, ++time);
    };
    ExpectError(file, file, "they change while they are read");
    onRead = nullptr;
    EXPECT_EQ(ends, 4);
}

TEST(SettingsStore, AFileThatIsAtRestIsReadOnce) {
    const test::TempDir folder;
    const std::string file = folder.Write("settings.ini", "[a]\nx=1\n");
    int ends = 0;
    onRead = [&](ssize_t count) { ends += count == 0 ? 1 : 0; };
    LoadFrom(file);
    onRead = nullptr;
    EXPECT_EQ(ends, 1);
}

TEST(SettingsStore, AnEmptyFileAndAnEmptyFolderHoldNothing) {
    const test::TempDir folder;
    EXPECT_THAT(LoadFrom(folder.GetPath()).GetGroups(), IsEmpty());
    EXPECT_THAT(LoadFrom(folder.Write("empty.ini", "")).GetGroups(), IsEmpty());
    EXPECT_THAT(LoadFrom(folder.GetPath()).GetGroups(), IsEmpty());
}

TEST(SettingsStore, FilesOfAFolderAreReadInByteOrderAndALaterOneWinsKeyByKey) {
    const test::TempDir folder;
    folder.Write("a.ini", "[g]\nfrom a=a\nboth=a\n[only a]\n");
    folder.Write("B.ini", "[g]\nfrom B=B\nboth=B\nB and 10=B\n");
    folder.Write("10.ini", "[g]\nB and 10=10\n10 and 9=10\n");
    folder.Write("9.ini", "[g]\n10 and 9=9\n");
    const core::IniFile ini = LoadFrom(folder.GetPath());
    EXPECT_THAT(ini.FindGroup("g"), ElementsAre(Pair("10 and 9", "9"), Pair("B and 10", "B"), Pair("both", "a"),
                                                Pair("from B", "B"), Pair("from a", "a")));
    EXPECT_THAT(ini.GetGroups(), ElementsAre(Key("g"), Key("only a")));
}

TEST(SettingsStore, OtherAndHiddenFilesOfAFolderAreNotRead) {
    const test::TempDir folder;
    folder.Write("good.ini", "[good]\n");
    for (const char* name : {"readme", "x.ini~", "x.ini.bak", "x.INI", ".ini", ".hidden.ini", "ini", "xini"}) {
        folder.Write(name, "this is malformed");
    }
    std::filesystem::create_directory(folder.PathOf("below"));
    folder.Write("below/x.ini", "this is malformed");
    EXPECT_THAT(LoadFrom(folder.GetPath()).GetGroups(), ElementsAre(Key("good")));
    EXPECT_THAT(LoadFrom(folder.GetPath() + "/").GetGroups(), ElementsAre(Key("good")));
}

TEST(SettingsStore, LinksAreFollowed) {
    const test::TempDir folder;
    folder.Write("elsewhere", "[g]\n");
    std::filesystem::create_directory(folder.PathOf("store"));
    std::filesystem::create_symlink("../elsewhere", folder.PathOf("store/x.ini"));
    std::filesystem::create_symlink("store", folder.PathOf("link"));
    EXPECT_THAT(LoadFrom(folder.PathOf("link")).GetGroups(), ElementsAre(Key("g")));
}

TEST(SettingsStore, StandsUnderEtcUnlessTheEnvironmentSaysSomethingElse) {
    const test::MemoryMount etc("/etc");
    std::filesystem::create_directories("/etc/kelto/settings");
    std::ofstream("/etc/kelto/settings/camera.ini") << "[of the camera]\n";
    for (const std::optional<std::string>& value : {std::optional<std::string>(), std::optional<std::string>("")}) {
        const test::EnvironmentVariable store("KELTO_SETTINGS", value);
        EXPECT_THAT(SettingsStore::Load().GetGroups(), ElementsAre(Key("of the camera")));
    }
    std::filesystem::remove_all("/etc/kelto/settings");
    const test::EnvironmentVariable store("KELTO_SETTINGS", std::nullopt);
    EXPECT_THAT([] { SettingsStore::Load(); },
                FailsWith(AllOf(HasSubstr("/etc/kelto/settings"), HasSubstr("No such file"))));
}

TEST(SettingsStore, AMissingStoreIsAnErrorWithPathAndReason) {
    const test::TempDir folder;
    ExpectError(folder.PathOf("nowhere"), folder.PathOf("nowhere"), "No such file or directory");
    const std::string file = folder.Write("file", "");
    ExpectError(file + "/below", file + "/below", "Not a directory");
}

TEST(SettingsStore, AFileThatMayNotBeReadIsAnErrorWithPathAndReason) {
    const test::TempDir folder;
    const std::string closed = folder.Write("closed.ini", "[g]\n");
    ASSERT_EQ(chmod(closed.c_str(), 0), 0);
    folder.Write("open.ini", "[g]\n");
    const test::Unprivileged unprivileged;
    ExpectError(closed, closed, "Permission denied");
    ExpectError(folder.GetPath(), closed, "Permission denied");
}

TEST(SettingsStore, AFolderThatMayNotBeReadIsAnErrorWithPathAndReason) {
    const test::TempDir folder;
    const std::string closed = folder.PathOf("closed");
    ASSERT_EQ(mkdir(closed.c_str(), 0300), 0);
    const test::Unprivileged unprivileged;
    ExpectError(closed, closed, "Permission denied");
}

TEST(SettingsStore, AFolderWhereAFileShouldBeIsAnErrorWithPathAndReason) {
    const test::TempDir folder;
    std::filesystem::create_directory(folder.PathOf("folder.ini"));
    ExpectError(folder.GetPath(), folder.PathOf("folder.ini"), "Is a directory");
}

TEST(SettingsStore, ALinkToNowhereOrToItselfIsAnErrorWithPathAndReason) {
    const test::TempDir folder;
    std::filesystem::create_symlink("loop.ini", folder.PathOf("loop.ini"));
    ExpectError(folder.PathOf("loop.ini"), folder.PathOf("loop.ini"), "Too many levels of symbolic links");
    std::filesystem::create_symlink("nowhere", folder.PathOf("dangling.ini"));
    ExpectError(folder.GetPath(), folder.PathOf("dangling.ini"), "No such file or directory");
}

TEST(SettingsStore, AReadThatFailsIsAnErrorWithPathAndReason) {
    ExpectError("/proc/self/mem", "/proc/self/mem", "Input/output error");
}

TEST(SettingsStore, AMalformedLineIsAnErrorWithItsFileAndLine) {
    const test::TempDir folder;
    folder.Write("a.ini", "[g]\nk=v\n");
    folder.Write("b.ini", "[g]\n\nbad\n");
    ExpectError(folder.GetPath(), folder.PathOf("b.ini") + ":3:", "key=value");
}

TEST(SettingsStore, AFileDoesNotContinueTheGroupOfTheOneBefore) {
    const test::TempDir folder;
    folder.Write("a.ini", "[g]\n");
    folder.Write("b.ini", "k=v\n");
    ExpectError(folder.GetPath(), folder.PathOf("b.ini") + ":1:", "group");
}

TEST(SettingsStore, IsReadAfreshEachTime) {
    const test::TempDir folder;
    folder.Write("a.ini", "[g]\nk=1\n");
    EXPECT_EQ(LoadFrom(folder.GetPath()).GetValue("g", "k"), "1");
    folder.Write("a.ini", "[g]\nk=2\n");
    EXPECT_EQ(LoadFrom(folder.GetPath()).GetValue("g", "k"), "2");
    folder.Write("b.ini", "[g]\nk=3\n");
    EXPECT_EQ(LoadFrom(folder.GetPath()).GetValue("g", "k"), "3");
    std::filesystem::remove(folder.PathOf("a.ini"));
    std::filesystem::remove(folder.PathOf("b.ini"));
    EXPECT_THAT(LoadFrom(folder.GetPath()).GetGroups(), IsEmpty());
}

TEST(SettingsStore, APipeThatServedNothingIsNotOpenedToCompareIt) {
    const test::TempDir folder;
    const std::string pipe = folder.PathOf("settings");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const test::EnvironmentVariable store("KELTO_SETTINGS", pipe);
    EXPECT_FALSE(SettingsStore::Holds({{pipe, ""}}));
}

TEST(SettingsStore, KeepsNoDescriptor) {
    const test::TempDir folder;
    folder.Write("a.ini", "[g]\n");
    folder.Write("b.ini", "bad\n");
    const std::vector<int> before = test::OpenDescriptors();
    EXPECT_THROW(LoadFrom(folder.GetPath()), osa::Exception);
    EXPECT_THROW(LoadFrom("/proc/self/mem"), osa::Exception);
    LoadFrom(folder.PathOf("a.ini"));
    EXPECT_EQ(test::OpenDescriptors(), before);
}

}  // namespace

}  // namespace kelto::settings
