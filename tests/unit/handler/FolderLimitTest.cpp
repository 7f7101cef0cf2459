#include "tests/fakes/FatNames.h"
#include "tests/fakes/ProgramsOnPath.h"
#include "tests/support/FatMount.h"
#include "tests/support/Matchers.h"
#include "tests/support/Unprivileged.h"
#include "tests/unit/handler/FolderFixture.h"

#include <filesystem>
#include <limits>
#include <map>

namespace kelto::halvek::handler {

namespace {

namespace fs = std::filesystem;

constexpr int64_t gibibyte = int64_t{1} << 30U;

constexpr const char* pastLimit = "Debug halvek: Directory past limit, deleting oldest file";
constexpr const char* cannotCheck = "Error halvek: FolderEventHandler: can't properly check directory size restraints";
constexpr const char* cannotDeleteOldest =
    "Error halvek: FolderEventHandler: unable to delete oldest file, permission problem?";

/** Where a long has 32 bits, sizes from 2 GiB on look odd in the log. */
std::string FileSize(int64_t bytes) {
    return "Debug halvek: Current File size:      " + std::to_string(static_cast<long>(bytes));
}

std::string DirectorySize(int64_t bytes) {
    return "Debug halvek: Current Directory size: " + std::to_string(bytes);
}

std::string LimitSize(int64_t bytes) {
    return "Debug halvek: Current Limit size:     " + std::to_string(bytes);
}

class FolderLimit : public FolderFixture {
protected:
    /** Files of one, two and one block, the second one the oldest: 16384 bytes. */
    void PutThree() {
        Put("a", 4096, 3000);
        Put("b", 8192, 1000);
        Put("c", 4096, 2000);
    }
};

TEST_F(FolderLimit, TheOldestFilesAreDeletedUntilTheSnapshotFits) {
    PutThree();
    Configure({{"LimitSize", "9k"}});
    Act();
    EXPECT_THAT(Lines(),
                ElementsAre(pastLimit, FileSize(5000), DirectorySize(16384), LimitSize(9216), pastLimit, FileSize(5000),
                            DirectorySize(8192), LimitSize(9216), Writing("new.jpg"), succeeded));
    EXPECT_THAT(Names(), ElementsAre("a", "new.jpg"));
}

TEST_F(FolderLimit, NothingIsDeletedAsLongAsItFits) {
    PutThree();
    Configure({{"LimitSize", "21384"}});
    Act();
    EXPECT_THAT(Lines(), ElementsAre(Writing("new.jpg"), succeeded));
    EXPECT_THAT(Names(), ElementsAre("a", "b", "c", "new.jpg"));
}

TEST_F(FolderLimit, OneByteTooManyIsTooMany) {
    PutThree();
    Configure({{"LimitSize", "21383"}});
    Act();
    EXPECT_THAT(Names(), ElementsAre("a", "c", "new.jpg"));
}

TEST_F(FolderLimit, TheFileThatWillBeReplacedCountsToo) {
    Put("new.jpg", 4096, 1000);
    Put("young", 4096, 2000);
    Configure({{"LimitSize", "10000"}});
    Act();
    EXPECT_THAT(Names(), ElementsAre("new.jpg", "young"));
    EXPECT_THAT(Lines(), Contains(pastLimit).Times(1));
    EXPECT_EQ(test::ReadWholeFile(InTarget("new.jpg")), picture);
}

TEST_F(FolderLimit, IsANumberOfBytesOrANumberWithAUnit) {
    NameSnapshot(MakeSparse("huge", 4 * gibibyte - 1000000));
    fs::create_directory(InTarget("sub"));
    Put("sub/file", 1, 1000);
    for (const auto& [text, bytes] : std::map<std::string, int64_t>{{"1000000", 1000000},
                                                                    {"0100", 100},
                                                                    {"100k", 102400},
                                                                    {"2M", 2097152},
                                                                    {"3g", 3 * gibibyte},
                                                                    {"3221225473", 3221225473}}) {
        Configure({{"LimitSize", text}});
        Act();
        EXPECT_THAT(Lines(), ElementsAre(pastLimit, FileSize(4 * gibibyte - 1000000), DirectorySize(4096),
                                         LimitSize(bytes), cannotDeleteOldest));
    }
    EXPECT_THAT(Names(), ElementsAre("sub", "sub/file"));
}

TEST_F(FolderLimit, IsOffWhenItIsZeroOrCannotBeRead) {
    PutThree();
    for (const char* text :
         {"0", "", "000", "0k", "1.5G", "10kB", "-1", "-1k", "+1k", " 1k", "k", "5x", "4294967296"}) {
        Configure({{"LimitSize", text}});
        Act();
        EXPECT_THAT(Lines(), ElementsAre(noLimit, Writing("new.jpg"), succeeded)) << text;
    }
    EXPECT_THAT(Names(), ElementsAre("a", "b", "c", "new.jpg"));
}

TEST_F(FolderLimit, AnEmptyFolderIsMeantToFailBecauseItCannotBeChecked) {
    Configure({{"LimitSize", "100k"}});
    Act();
    EXPECT_THAT(Lines(), ElementsAre(cannotCheck));
    EXPECT_THAT(Names(), IsEmpty());
    Put("first", 1, 1000);
    Act();
    EXPECT_THAT(Names(), ElementsAre("first", "new.jpg"));
}

TEST_F(FolderLimit, SmallerThanTheSnapshotItEmptiesTheFolderAndFails) {
    PutThree();
    Configure({{"LimitSize", "4k"}});
    Act();
    EXPECT_THAT(Lines(), ElementsAre(pastLimit, FileSize(5000), DirectorySize(16384), LimitSize(4096), pastLimit,
                                     FileSize(5000), DirectorySize(8192), LimitSize(4096), pastLimit, FileSize(5000),
                                     DirectorySize(4096), LimitSize(4096), pastLimit, FileSize(5000), DirectorySize(0),
                                     LimitSize(4096), cannotDeleteOldest));
    EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(FolderLimit, Of4GiBAndMoreIsMeantNeverToDeleteAnything) {
    PutThree();
    NameSnapshot(MakeSparse("huge", 16 * gibibyte - 100));
    for (const char* limit : {"4G", "5g", "1t", "4194304k"}) {
        Configure({{"LimitSize", limit}});
        Act();
        EXPECT_THAT(Lines(), Not(Contains(pastLimit))) << limit;
        EXPECT_EQ(Lines().back(), reallyFailed) << limit;
    }
    EXPECT_THAT(Names(), ElementsAre("a", "b", "c"));
}

TEST_F(FolderLimit, TheSumOfSnapshotAndFolderIsCutTo32Bits) {
    PutThree();
    NameSnapshot(MakeSparse("huge", 4 * gibibyte + 100));
    Configure({{"LimitSize", "16484"}});
    Act();
    EXPECT_THAT(Lines(), Not(Contains(pastLimit)));
    Configure({{"LimitSize", "16483"}});
    Act();
    EXPECT_THAT(Lines(), Contains(FileSize(4 * gibibyte + 100)).Times(1));
    EXPECT_THAT(Names(), ElementsAre("a", "c"));
}

TEST_F(FolderLimit, TheSizeOfASnapshotPast2GiBIsKnown) {
    Put("a", 4096, 1000);
    NameSnapshot(MakeSparse("huge", 3 * gibibyte));
    Configure({{"LimitSize", "3g"}});
    Act();
    EXPECT_THAT(Lines(), Contains(FileSize(3 * gibibyte)));
    EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(FolderLimit, ASnapshotThatGoesAwayMeanwhileIsAnError) {
    PutThree();
    const test::ProgramsOnPath programs;
    programs.Write("du", "rm " + source + "; echo 16 x");
    Configure({{"LimitSize", "1k"}});
    Act();
    EXPECT_THAT(Lines(), ElementsAre("Error halvek: FolderEventHandler: can't stat source file, does it exist?"));
    EXPECT_THAT(Names(), ElementsAre("a", "b", "c"));
}

TEST_F(FolderLimit, AFolderWhoseSizeCannotBeReadIsAnError) {
    PutThree();
    Configure({{"LimitSize", "1k"}});
    {
        const test::EnvironmentVariable path("PATH", folder.GetPath());
        Act();
    }
    EXPECT_THAT(Lines(), ElementsAre(cannotCheck));
    EXPECT_THAT(Names(), ElementsAre("a", "b", "c"));
}

TEST_F(FolderLimit, FilesOfTheYear2040AreTheNewest) {
    constexpr time_t begin2040 = 2208988800;
    Put("a2040", 4096, begin2040);
    Put("b2038", 4096, std::numeric_limits<int32_t>::max());
    Put("c1970", 4096, 1);
    Put("d2041", 4096, begin2040 + 366 * 86400);
    Configure({{"LimitSize", "13200"}});
    Act();
    EXPECT_THAT(Names(), ElementsAre("a2040", "d2041", "new.jpg"));
}

TEST_F(FolderLimit, OnAReadOnlyFolderNothingChangesAndLaterEventsAreSaved) {
    PutThree();
    card.MakeReadOnly();
    Configure({{"LimitSize", "9k"}});
    Act();
    EXPECT_THAT(Lines(),
                ElementsAre(pastLimit, FileSize(5000), DirectorySize(16384), LimitSize(9216), cannotDeleteOldest));
    Configure({{"LimitSize", "0"}});
    Act();
    const std::string failure = "Error kelto.osa: Cannot write into " + target + ": Read-only file system";
    EXPECT_THAT(Lines(),
                ElementsAre(noLimit, Writing("new.jpg"), failure, retried, Writing("new.jpg"), failure, reallyFailed));
    EXPECT_THAT(Names(), ElementsAre("a", "b", "c"));
    card.MakeWritable();
    Act();
    EXPECT_THAT(Names(), ElementsAre("a", "b", "c", "new.jpg"));
}

TEST_F(FolderLimit, WithoutPermissionToDeleteItIsAnError) {
    PutThree();
    Configure({{"LimitSize", "9k"}});
    fs::permissions(target, fs::perms::owner_read | fs::perms::owner_exec);
    {
        // The programs have what rights they will: it is the daemon that deletes.
        const test::Unprivileged unprivileged;
        Act();
    }
    EXPECT_EQ(Lines().back(), cannotDeleteOldest);
    EXPECT_THAT(Names(), ElementsAre("a", "b", "c"));
}

TEST_F(FolderLimit, OnAFullDiskNothingIsLeftHalfWrittenAndLaterEventsAreSaved) {
    Put("new.jpg", 4096, 1000);
    Put("filler", 31 * 4096 - 4096, 2000);
    Configure();
    Act();
    const std::string failure = "Error kelto.osa: Cannot write " + InTarget("new.jpg") + ": No space left on device";
    EXPECT_THAT(Lines(),
                ElementsAre(noLimit, Writing("new.jpg"), failure, retried, Writing("new.jpg"), failure, reallyFailed));
    EXPECT_THAT(Names(), ElementsAre("filler", "new.jpg"));
    EXPECT_EQ(test::ReadWholeFile(InTarget("new.jpg")), std::string(4096, 'o'));
    fs::resize_file(InTarget("filler"), 20 * 4096);
    Act();
    EXPECT_EQ(test::ReadWholeFile(InTarget("new.jpg")), picture);
}

TEST_F(FolderLimit, ALimitKeepsAFullDiskUsable) {
    for (int number = 0; number < 31; ++number) {
        Put(std::to_string(100 + number), 4096, 1000 + number);
    }
    Configure({{"LimitSize", "100k"}});
    Act();
    EXPECT_EQ(Lines().back(), succeeded);
    EXPECT_THAT(Names(), Contains("new.jpg"));
    EXPECT_THAT(Names(), Not(Contains("107")));
    EXPECT_THAT(Names(), Contains("108"));
}

TEST_F(FolderLimit, ANameThatAFatCardRefusesIsWrittenShort) {
    const test::FatMount fat(target, folder.PathOf("fat.img"));
    // This system may be able to mount none.
    const test::FatNames refused;
    const std::string name = "12:30:45 front door.jpg";
    Configure({{"DestName", name}});
    Act();
    EXPECT_THAT(Lines(), ElementsAre(noLimit, Writing(name), retried, Writing("12_30_45.jpg"), succeeded));
    EXPECT_THAT(Names(), ElementsAre("12_30_45.jpg"));
    EXPECT_EQ(test::ReadWholeFile(InTarget("12_30_45.jpg")), picture);
}

}  // namespace

}  // namespace kelto::halvek::handler
