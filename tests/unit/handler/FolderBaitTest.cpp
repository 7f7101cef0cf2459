#include "tests/support/Matchers.h"
#include "tests/unit/handler/FolderFixture.h"

#include <filesystem>

namespace kelto::halvek::handler {

namespace {

namespace fs = std::filesystem;

constexpr const char* succeeded = "Debug halvek: Copy succeeded";
constexpr const char* cannotDelete =
    "Error halvek: FolderEventHandler: unable to delete oldest file, permission problem?";

/**
 * The commands that look for the oldest file do so in the wrong places at times. That nothing is gone from the current
 * folder, which is full of bait, is looked at after each test.
 */
class NothingOutsideTheFolderIsRemoved : public FolderFixture {
protected:
    /** A limit that is always passed: everything that may be deleted is. */
    void ActWithALimitOfOneByte(const std::string& destination) {
        Configure({{"DestinationPath", destination}, {"LimitSize", "1"}});
        Act();
        EXPECT_EQ(Lines().back(), cannotDelete);
    }
};

TEST_F(NothingOutsideTheFolderIsRemoved, WhenTheFolderHasNoFileAndTheCurrentOneIsListedInstead) {
    fs::create_directory(InTarget("sub"));
    Put("sub/bait", 1, 1);
    ActWithALimitOfOneByte(target);
    EXPECT_THAT(Names(), ElementsAre("sub", "sub/bait"));
}

TEST_F(NothingOutsideTheFolderIsRemoved, WhenTheLastFileOfTheFolderIsGone) {
    Put("only", 1, 1);
    ActWithALimitOfOneByte(target);
    EXPECT_THAT(Names(), ElementsAre());
}

TEST_F(NothingOutsideTheFolderIsRemoved, WhenABlankInTheFoldersNameIsMeantToBreakTheCommands) {
    for (const char* name : {"my", "my card", "my card/sub"}) {
        fs::create_directory(InTarget(name));
    }
    Put("my/bait", 1, 1);
    Put("my card/old.jpg", 1, 1);
    bait.Add("card/bait");
    bait.Add("card/old.jpg");
    ActWithALimitOfOneByte(InTarget("my card"));
    EXPECT_THAT(Names(), ElementsAre("my", "my card", "my card/old.jpg", "my card/sub", "my/bait"));
}

TEST_F(NothingOutsideTheFolderIsRemoved, WhenOnlyWhatIsBehindTheBlankIsThereInTheCurrentFolder) {
    fs::create_directory(InTarget("my card"));
    Put("my card/old.jpg", 1, 1000);
    Configure({{"DestinationPath", InTarget("my card")}, {"LimitSize", "1"}});
    Act();
    EXPECT_EQ(Lines().back(), "Error halvek: FolderEventHandler: can't properly check directory size restraints");
    bait.Add("card");
    ActWithALimitOfOneByte(InTarget("my card"));
    EXPECT_THAT(Names(), ElementsAre("my card", "my card/old.jpg"));
}

TEST_F(NothingOutsideTheFolderIsRemoved, WhenTheShellExpandsTheFoldersName) {
    for (const char* name : {"[ab]", "a", "x*", "xy"}) {
        fs::create_directory(InTarget(name));
        Put(std::string(name) + "/bait", 1, 1);
    }
    ActWithALimitOfOneByte(InTarget("[ab]"));
    EXPECT_TRUE(fs::exists(InTarget("a/bait")));
    // This one matches itself too, so its own files may be found.
    ActWithALimitOfOneByte(InTarget("x*"));
    EXPECT_TRUE(fs::exists(InTarget("xy/bait")));
}

TEST_F(NothingOutsideTheFolderIsRemoved, WhenABlankInAFilesNameIsMeantToBreakTheCommands) {
    Put("front door.jpg", 1, 1000);
    Put("young.jpg", 1, 2000);
    bait.Add("door.jpg");
    ActWithALimitOfOneByte(target);
    EXPECT_THAT(Names(), ElementsAre("front door.jpg", "young.jpg"));
}

TEST_F(NothingOutsideTheFolderIsRemoved, WhenAFilesNameHasALineBreak) {
    Put("one\nbait", 1, 1000);
    ActWithALimitOfOneByte(target);
    EXPECT_THAT(Names(), ElementsAre("one\nbait"));
}

TEST_F(NothingOutsideTheFolderIsRemoved, WhenAFilesNameHasQuotesOrABackslash) {
    for (const char* name : {"it's.jpg", "say \"bait\"", "back\\slash.jpg", "trailing\\"}) {
        Put(name, 1, 1000);
        ActWithALimitOfOneByte(target);
        EXPECT_THAT(Names(), ElementsAre(name));
        fs::remove(InTarget(name));
    }
}

TEST_F(NothingOutsideTheFolderIsRemoved, WhenThePieceBeforeABlankIsALinkOrAFolder) {
    fs::create_symlink(bait.PathOf("bait"), InTarget("link"));
    fs::create_directory_symlink(bait.PathOf("sub"), InTarget("linked"));
    fs::create_directory(InTarget("sub"));
    Put("sub/bait", 1, 1);
    for (const char* name : {"link b", "linked b", "sub b", "sub "}) {
        Put(name, 1, 1000);
        ActWithALimitOfOneByte(target);
        EXPECT_THAT(Names(), UnorderedElementsAre("link", "linked", "sub", name, "sub/bait"));
        fs::remove(InTarget(name));
    }
}

TEST_F(NothingOutsideTheFolderIsRemoved, WhenTheFolderHoldsLinks) {
    fs::create_symlink(bait.PathOf("bait"), InTarget("link"));
    fs::create_directory_symlink(bait.PathOf("sub"), InTarget("linked"));
    fs::create_symlink("nowhere", InTarget("dangling"));
    Put("old", 1, 1000);
    ActWithALimitOfOneByte(target);
    EXPECT_THAT(Names(), ElementsAre("dangling", "link", "linked"));
}

TEST_F(NothingOutsideTheFolderIsRemoved, WhenTheDestinationIsALinkToAFolder) {
    fs::create_directory(InTarget("real"));
    Put("real/old", 4096, 1000);
    Put("real/young", 4096, 2000);
    Put("beside", 4096, 1);
    fs::create_directory_symlink("real", InTarget("link"));
    Configure({{"DestinationPath", InTarget("link")}, {"LimitSize", "10000"}});
    Act();
    EXPECT_EQ(Lines().back(), succeeded);
    EXPECT_THAT(Names(), ElementsAre("beside", "link", "real", "real/new.jpg", "real/young"));
}

TEST_F(NothingOutsideTheFolderIsRemoved, WhenTheNameOfTheNewFileIsThatOfALink) {
    fs::create_symlink(bait.PathOf("bait"), InTarget("new.jpg"));
    Configure();
    Act();
    EXPECT_FALSE(fs::is_symlink(InTarget("new.jpg")));
    EXPECT_EQ(test::ReadWholeFile(bait.PathOf("bait")), "bait");
}

TEST_F(NothingOutsideTheFolderIsRemoved, WhenTheFolderHoldsTenThousandFiles) {
    constexpr int count = 10000;
    constexpr uint32_t limit = 4096U * count;
    const test::MemoryMount large(target);
    for (int number = 0; number < count; ++number) {
        Put(std::to_string(count + number) + ".jpg", 1, 1000000 + number);
    }
    Configure({{"LimitSize", std::to_string(limit)}});
    Act();
    EXPECT_EQ(Lines().back(), succeeded);
    // The list is too long for one ls, so that it need not be the very oldest two; the files are in any order there.
    EXPECT_THAT(Names(), SizeIs(count - 2 + 1));
    EXPECT_TRUE(fs::exists(InTarget("new.jpg")));
}

}  // namespace

}  // namespace kelto::halvek::handler
