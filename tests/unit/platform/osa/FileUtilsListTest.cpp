#include "kelto/osa/Exception.h"
#include "kelto/osa/FileUtils.h"
#include "kelto/osa/UniqueFd.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"
#include "tests/support/Unprivileged.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>

namespace kelto::osa {

namespace {

using Paths = std::vector<std::string>;

Paths List(const std::string& directory) {
    Paths paths = {"left from before"};
    FileUtils::ListFiles(directory, paths);
    return paths;
}

TEST(ListFiles, GivesFullPathsInByteOrder) {
    const test::TempDir folder;
    for (const char* name : {"b", "B", "a.z", "a", "\xc3\xa4", "a b", "_", "10", "9"}) {
        folder.Write(name, "");
    }
    EXPECT_THAT(
        List(folder.GetPath()),
        ElementsAre(folder.PathOf("10"), folder.PathOf("9"), folder.PathOf("B"), folder.PathOf("_"), folder.PathOf("a"),
                    folder.PathOf("a b"), folder.PathOf("a.z"), folder.PathOf("b"), folder.PathOf("\xc3\xa4")));
}

TEST(ListFiles, GivesEverythingButTheTwoDotNames) {
    const test::TempDir folder;
    std::filesystem::create_directory(folder.PathOf("folder"));
    folder.Write("folder/below", "");
    folder.Write(".hidden", "");
    folder.Write("...", "");
    std::filesystem::create_symlink("nowhere", folder.PathOf("dangling"));
    ASSERT_EQ(mkfifo(folder.PathOf("fifo").c_str(), 0600), 0);
    EXPECT_THAT(List(folder.GetPath()),
                ElementsAre(folder.PathOf("..."), folder.PathOf(".hidden"), folder.PathOf("dangling"),
                            folder.PathOf("fifo"), folder.PathOf("folder")));
}

TEST(ListFiles, AnEmptyFolderGivesAnEmptyList) {
    EXPECT_THAT(List(test::TempDir().GetPath()), IsEmpty());
}

TEST(ListFiles, AFailureBeforeItIsNotTakenForOneOfItsOwn) {
    const test::TempDir folder;
    const std::string removed = folder.PathOf("removed");
    ASSERT_EQ(mkdir(removed.c_str(), 0700), 0);
    const UniqueFd held(open(removed.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(std::filesystem::remove(removed));
    // A folder that has been removed has no names at all, not even the two dot names.
    const std::string path = "/proc/self/fd/" + std::to_string(held.Get());
    errno = EMLINK;
    EXPECT_THAT(List(path), IsEmpty());
}

TEST(ListFiles, AFolderThatDoesNotExistGivesAnEmptyList) {
    const test::TempDir folder;
    std::filesystem::create_symlink("nowhere", folder.PathOf("dangling"));
    EXPECT_THAT(List(folder.PathOf("nowhere")), IsEmpty());
    EXPECT_THAT(List(folder.PathOf("nowhere/below")), IsEmpty());
    EXPECT_THAT(List(folder.PathOf("dangling")), IsEmpty());
    EXPECT_THAT(List(""), IsEmpty());
}

TEST(ListFiles, SlashesAtTheFoldersEndAddNoneToThePaths) {
    const test::TempDir folder;
    folder.Write("file", "");
    EXPECT_THAT(List(folder.GetPath() + "//"), ElementsAre(folder.PathOf("file")));
}

TEST(ListFiles, FollowsALinkToAFolderAndKeepsTheNameThatWasGiven) {
    const test::TempDir folder;
    std::filesystem::create_directory(folder.PathOf("real"));
    folder.Write("real/file", "");
    std::filesystem::create_symlink("real", folder.PathOf("link"));
    EXPECT_THAT(List(folder.PathOf("link")), ElementsAre(folder.PathOf("link/file")));
}

TEST(ListFiles, ListsThousandsOfFiles) {
    const test::TempDir folder;
    for (int number = 0; number < 3000; ++number) {
        folder.Write("a name of some length " + std::to_string(number), "");
    }
    const Paths paths = List(folder.GetPath());
    EXPECT_THAT(paths, SizeIs(3000));
    EXPECT_TRUE(std::is_sorted(paths.begin(), paths.end()));
}

TEST(ListFiles, ThrowsForWhatIsNoFolder) {
    const test::TempDir folder;
    const std::string file = folder.Write("file", "");
    EXPECT_THAT([&] { List(file); }, FailsWith(AllOf(HasSubstr(file), HasSubstr("Not a directory"))));
    EXPECT_THAT([&] { List(file + "/below"); }, FailsWith(HasSubstr("Not a directory")));
}

TEST(ListFiles, ThrowsForAFolderThatMayNotBeRead) {
    const test::TempDir folder;
    const std::string closed = folder.PathOf("closed");
    ASSERT_EQ(mkdir(closed.c_str(), 0300), 0);
    const test::Unprivileged unprivileged;
    EXPECT_THAT([&] { List(closed); }, FailsWith(AllOf(HasSubstr(closed), HasSubstr("Permission denied"))));
}

TEST(ListFiles, ThrowsForALinkThatLeadsToItselfAndForAnEndlessName) {
    const test::TempDir folder;
    std::filesystem::create_symlink("loop", folder.PathOf("loop"));
    EXPECT_THAT([&] { List(folder.PathOf("loop")); }, FailsWith(HasSubstr("Too many levels of symbolic links")));
    EXPECT_THAT([&] { List(folder.PathOf(std::string(NAME_MAX + 1, 'x'))); },
                FailsWith(HasSubstr("File name too long")));
}

TEST(ListFiles, ThrowsWhenThereIsNoDescriptorLeft) {
    const test::TempDir folder;
    folder.Write("file", "");
    std::string text;
    {
        // No expectation in here: the sanitizer's own checks want a descriptor.
        const test::FewDescriptorsLeft none(0);
        try {
            List(folder.GetPath());
        } catch (const Exception& exception) {
            text = exception.what();
        }
    }
    EXPECT_THAT(text, AllOf(HasSubstr(folder.GetPath()), HasSubstr("Too many open files")));
}

TEST(ListFiles, LeavesTheListEmptyWhenItThrows) {
    const test::TempDir folder;
    Paths paths = {"left from before"};
    EXPECT_THROW(FileUtils::ListFiles(folder.Write("file", ""), paths), Exception);
    EXPECT_THAT(paths, IsEmpty());
}

TEST(ListFiles, KeepsNoDescriptor) {
    const test::TempDir folder;
    const std::string file = folder.Write("file", "");
    const std::vector<int> before = test::OpenDescriptors();
    List(folder.GetPath());
    EXPECT_THROW(List(file), Exception);
    EXPECT_EQ(test::OpenDescriptors(), before);
}

}  // namespace

}  // namespace kelto::osa
