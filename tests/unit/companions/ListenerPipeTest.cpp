#include "companions/common/ListenerPipe.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitUntil.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <system_error>
#include <thread>

namespace kelto::companion {

namespace {

struct stat StatusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

bool IsThere(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

/** Writes as the daemon does. */
bool Write(const std::string& path, const std::string& text) {
    const UniqueFd file(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    return write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

class ListenerPipeTest : public ::testing::Test {
protected:
    std::string Path() const { return folder.PathOf("zz-test.halvek.any"); }
    std::string Folder() const { return folder.GetPath(); }

    test::TempDir folder;
};

TEST_F(ListenerPipeTest, ThePipeIsThereForItsOwnerAndItsGroupWhateverTheUmask) {
    const mode_t umaskBefore = umask(0077);
    const ListenerPipe pipe("zz-test", Folder());
    umask(umaskBefore);
    EXPECT_EQ(pipe.Path(), Path());
    EXPECT_TRUE(S_ISFIFO(StatusOf(Path()).st_mode));
    EXPECT_EQ(StatusOf(Path()).st_mode & 07777U, 0660U);
}

TEST_F(ListenerPipeTest, ThePipeHoldsOneMebibyteAndIsNotInherited) {
    const ListenerPipe pipe("zz-test", Folder());
    EXPECT_EQ(pipe.Capacity(), 1024 * 1024);
    EXPECT_EQ(fcntl(pipe.Descriptor(), F_GETPIPE_SZ), 1024 * 1024);
    EXPECT_EQ(fcntl(pipe.Descriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(ListenerPipeTest, ReadingGivesWhatIsThereAndNeverWaits) {
    ListenerPipe pipe("zz-test", Folder());
    EXPECT_EQ(pipe.Read(), "");
    ASSERT_TRUE(Write(Path(), "one"));
    ASSERT_TRUE(Write(Path(), "two"));
    EXPECT_EQ(pipe.Read(), "onetwo");
    EXPECT_EQ(pipe.Read(), "");
}

TEST_F(ListenerPipeTest, ThePipeIsGoneAtTheEnd) {
    { const ListenerPipe pipe("zz-test", Folder()); }
    EXPECT_FALSE(IsThere(Path()));
}

TEST_F(ListenerPipeTest, APipeThatAnEarlierProcessLeftIsReadOutAndReplaced) {
    ASSERT_EQ(mkfifo(Path().c_str(), 0600), 0);
    // The daemon keeps it open where a write has failed, and so what is in it.
    const UniqueFd kept(open(Path().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(Write(Path(), "[A]\n.\n[Torn]\n"));
    const ino_t before = StatusOf(Path()).st_ino;
    ListenerPipe pipe("zz-test", Folder());
    EXPECT_EQ(pipe.LeftOver(), "[A]\n.\n[Torn]\n");
    EXPECT_NE(StatusOf(Path()).st_ino, before);
    EXPECT_EQ(StatusOf(Path()).st_mode & 07777U, 0660U);
    EXPECT_EQ(pipe.Read(), "");
}

TEST_F(ListenerPipeTest, WhatElseStandsInThePipesPlaceIsReplacedAndALinkIsNotFollowed) {
    const std::string other = folder.Write("other", "precious");
    ASSERT_EQ(symlink(other.c_str(), Path().c_str()), 0);
    {
        const ListenerPipe pipe("zz-test", Folder());
        EXPECT_TRUE(S_ISFIFO(StatusOf(Path()).st_mode));
        EXPECT_EQ(pipe.LeftOver(), "");
    }
    EXPECT_EQ(test::ReadWholeFile(other), "precious");
}

TEST_F(ListenerPipeTest, AHalfMadePipeOfAKilledProcessIsNoObstacle) {
    ASSERT_EQ(mkfifo(folder.PathOf(".zz-test.new").c_str(), 0600), 0);
    const ListenerPipe pipe("zz-test", Folder());
    EXPECT_TRUE(IsThere(Path()));
    EXPECT_FALSE(IsThere(folder.PathOf(".zz-test.new")));
}

TEST_F(ListenerPipeTest, ThePipeOfASuccessorIsLeftAlone) {
    std::optional<ListenerPipe> first(std::in_place, "zz-test", Folder());
    const ListenerPipe second("zz-test", Folder());
    first.reset();
    EXPECT_TRUE(IsThere(Path()));
}

/** Ends a pipe, and returns what was read then. */
std::string RestOf(ListenerPipe& pipe) {
    std::string rest;
    pipe.ReadToItsEnd([&rest](std::string_view bytes) { rest += bytes; });
    return rest;
}

TEST_F(ListenerPipeTest, WhatWasWrittenBeforeTheEndIsReadAndThePipeIsGone) {
    ListenerPipe pipe("zz-test", Folder());
    ASSERT_TRUE(Write(Path(), "last"));
    EXPECT_EQ(RestOf(pipe), "last");
    EXPECT_FALSE(IsThere(Path()));
}

TEST_F(ListenerPipeTest, WhoeverHasOpenedThePipeBeforeItIsRemovedIsStillHeard) {
    ListenerPipe pipe("zz-test", Folder());
    UniqueFd writer(open(Path().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    std::thread late([&] {
        EXPECT_TRUE(test::WaitUntil([&] { return !IsThere(Path()); }));
        EXPECT_EQ(write(writer.Get(), "late", 4), 4);
        writer.Reset();
    });
    EXPECT_EQ(RestOf(pipe), "late");
    late.join();
}

TEST_F(ListenerPipeTest, AWriterThatNeverClosesThePipeHoldsItsEndUpForAMomentOnly) {
    ListenerPipe pipe("zz-test", Folder());
    const UniqueFd writer(open(Path().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    ASSERT_EQ(write(writer.Get(), "last", 4), 4);
    EXPECT_EQ(RestOf(pipe), "last");
}

TEST_F(ListenerPipeTest, AtItsEndAPipeLeavesThatOfASuccessorAlone) {
    ListenerPipe first("zz-test", Folder());
    const ListenerPipe second("zz-test", Folder());
    EXPECT_EQ(RestOf(first), "");
    EXPECT_TRUE(IsThere(Path()));
}

TEST_F(ListenerPipeTest, AFolderThatIsNotThereIsAnErrorThatNamesIt) {
    try {
        const ListenerPipe pipe("zz-test", "/nowhere");
        FAIL() << "no error";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), ENOENT);
        EXPECT_THAT(error.what(), ::testing::HasSubstr("/nowhere/"));
    }
}

TEST_F(ListenerPipeTest, AFolderInThePipesPlaceIsAnErrorAndNothingIsLeftBehind) {
    ASSERT_EQ(mkdir(Path().c_str(), 0700), 0);
    EXPECT_THROW(ListenerPipe("zz-test", Folder()), std::system_error);
    EXPECT_FALSE(IsThere(folder.PathOf(".zz-test.new")));
}

}  // namespace

}  // namespace kelto::companion
