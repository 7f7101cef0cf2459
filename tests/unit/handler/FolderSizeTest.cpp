#include "handler/FolderSize.h"
#include "tests/fakes/ProgramsOnPath.h"
#include "tests/support/BaitedFolder.h"
#include "tests/support/Descriptors.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MemoryMount.h"
#include "tests/support/TempDir.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <vector>

namespace kelto::halvek::handler {

namespace {

namespace fs = std::filesystem;
using ::testing::UnorderedElementsAreArray;

constexpr off_t threeGiB = off_t{3} << 30U;

/** What GetDirectorySize makes of a du that prints this. */
uint32_t SizeFor(const test::ProgramsOnPath& programs, const std::string& printed) {
    programs.Write("du", "printf '" + printed + "'");
    return GetDirectorySize("/folder");
}

TEST(DirectorySize, IsWhatAFolderAndAllBelowItTakeInBytes) {
    const test::TempDir folder;
    const test::MemoryMount disk(folder.GetPath());
    EXPECT_EQ(GetDirectorySize(folder.GetPath()), 0U);
    folder.Write("one", "1");
    EXPECT_EQ(GetDirectorySize(folder.GetPath()), 4096U);
    fs::create_directory(folder.PathOf("sub"));
    folder.Write("sub/.two", std::string(4097, '2'));
    EXPECT_EQ(GetDirectorySize(folder.GetPath()), 3 * 4096U);
    ASSERT_EQ(truncate(folder.Write("sparse", "").c_str(), threeGiB), 0);
    EXPECT_EQ(GetDirectorySize(folder.GetPath()), 3 * 4096U);
}

TEST(DirectorySize, ComesFromDuWithThePathUnquoted) {
    const test::ProgramsOnPath programs;
    programs.WriteNoting("du", "echo 12 /folder");
    EXPECT_EQ(GetDirectorySize("/folder"), 12288U);
    EXPECT_EQ(GetDirectorySize("/my card"), 12288U);
    EXPECT_EQ(programs.Notes(), "du <-ks> </folder>\ndu <-ks> </my> <card>\n");
}

TEST(DirectorySize, IsMeantToBeThatOfAnotherFolderWhenThePathHasABlank) {
    const test::TempDir folder;
    const test::MemoryMount disk(folder.GetPath());
    const test::LogCapture complaints;
    for (const char* name : {"my", "my card"}) {
        fs::create_directory(folder.PathOf(name));
    }
    folder.Write("my/file", "1");
    folder.Write("my card/file", std::string(8192, '2'));
    EXPECT_EQ(GetDirectorySize(folder.PathOf("my card")), 4096U);
}

TEST(DirectorySize, IsTheFirstDigitsTimes1024) {
    const test::ProgramsOnPath programs;
    EXPECT_EQ(SizeFor(programs, "0\\t/folder\\n"), 0U);
    EXPECT_EQ(SizeFor(programs, "7\\t/folder\\n"), 7168U);
    EXPECT_EQ(SizeFor(programs, "7\\n"), 7168U);
    EXPECT_EQ(SizeFor(programs, "007x9\\n"), 7168U);
    EXPECT_EQ(SizeFor(programs, "7.5\\n"), 7168U);
    EXPECT_EQ(SizeFor(programs, "7\\t/folder\\n8\\t/other\\n"), 7168U);
}

TEST(DirectorySize, WrapsAt4GiB) {
    const test::ProgramsOnPath programs;
    EXPECT_EQ(SizeFor(programs, "4194303\\t/folder\\n"), 4294966272U);
    EXPECT_EQ(SizeFor(programs, "4194304\\t/folder\\n"), 0U);
    EXPECT_EQ(SizeFor(programs, "4194305\\t/folder\\n"), 1024U);
    EXPECT_EQ(SizeFor(programs, "4294967295\\t/folder\\n"), 4294966272U);
}

TEST(DirectorySize, IsZeroForWhatCannotBeRead) {
    const test::ProgramsOnPath programs;
    EXPECT_EQ(SizeFor(programs, ""), 0U);
    EXPECT_EQ(SizeFor(programs, "7"), 0U);
    EXPECT_EQ(SizeFor(programs, " 7\\n"), 0U);
    EXPECT_EQ(SizeFor(programs, "-7\\n"), 0U);
    EXPECT_EQ(SizeFor(programs, "du: 7\\n"), 0U);
    EXPECT_EQ(SizeFor(programs, "4294967296\\t/folder\\n"), 0U);
    EXPECT_EQ(SizeFor(programs, "\\377\\n"), 0U);
}

TEST(DirectorySize, StandsInTheFirst255Bytes) {
    const test::ProgramsOnPath programs;
    EXPECT_EQ(SizeFor(programs, std::string(253, '0') + "7\\n"), 7168U);
    EXPECT_EQ(SizeFor(programs, std::string(254, '0') + "7\\n"), 0U);
}

TEST(DirectorySize, IsZeroForAFolderThatIsNotThereAndWithoutDu) {
    const test::TempDir folder;
    const test::LogCapture complaints;
    EXPECT_EQ(GetDirectorySize(folder.PathOf("nowhere")), 0U);
    const test::EnvironmentVariable path("PATH", folder.GetPath());
    EXPECT_EQ(GetDirectorySize(folder.GetPath()), 0U);
}

TEST(DirectorySize, IsZeroWithoutADescriptor) {
    const test::TempDir folder;
    folder.Write("file", std::string(8192, 'x'));
    const std::string path = folder.GetPath();
    ASSERT_GT(GetDirectorySize(path), 0U);
    uint32_t size = 1;
    {
        const test::FewDescriptorsLeft none(0);
        size = GetDirectorySize(path);
    }
    EXPECT_EQ(size, 0U);
}

/** A folder to delete in, outside a current folder full of bait. */
class OldestFile : public ::testing::Test {
protected:
    OldestFile() { fs::create_directory(target); }

    void TearDown() override { EXPECT_EQ(bait.Now(), bait.Before()); }

    /** Puts a file there, last modified at that second. */
    void Put(const std::string& name, time_t modified) const {
        const timespec times[2] = {{.tv_sec = modified, .tv_nsec = 0}, {.tv_sec = modified, .tv_nsec = 0}};
        folder.Write("target/" + name, "x");
        ASSERT_EQ(utimensat(AT_FDCWD, InTarget(name).c_str(), times, 0), 0);
    }

    std::string InTarget(const std::string& name) const { return target + "/" + name; }

    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const fs::directory_entry& entry : fs::directory_iterator(target)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    const test::TempDir folder;
    const std::string target = folder.PathOf("target");
    test::BaitedFolder bait;
    const test::LogCapture complaints;
};

TEST_F(OldestFile, IsTheLeastRecentlyModifiedWhateverItsName) {
    Put("a", 3000);
    Put("b", 1000);
    Put(".hidden", 2000);
    for (const auto& left : std::vector<std::vector<std::string>>{{"a", ".hidden"}, {"a"}, {}}) {
        EXPECT_TRUE(DeleteOldestFile(target));
        EXPECT_THAT(Names(), UnorderedElementsAreArray(left));
    }
    EXPECT_FALSE(DeleteOldestFile(target));
}

TEST_F(OldestFile, IsFoundPast2038) {
    constexpr time_t begin2040 = 2208988800;
    constexpr time_t begin2039 = 2177452800;
    constexpr time_t lastOf32Bits = INT32_MAX;
    Put("2040", begin2040);
    Put("2038", lastOf32Bits);
    Put("2039", begin2039);
    Put("1970", 1);
    for (const auto& left :
         std::vector<std::vector<std::string>>{{"2040", "2039", "2038"}, {"2040", "2039"}, {"2040"}, {}}) {
        EXPECT_TRUE(DeleteOldestFile(target));
        EXPECT_THAT(Names(), UnorderedElementsAreArray(left));
    }
}

TEST_F(OldestFile, OfMoreThan2GiBIsRemoved) {
    Put("large", 1000);
    ASSERT_EQ(truncate(InTarget("large").c_str(), threeGiB), 0);
    EXPECT_TRUE(DeleteOldestFile(target));
    EXPECT_TRUE(Names().empty());
}

TEST_F(OldestFile, IsNeitherBelowASubFolderNorALinkNorAPipe) {
    fs::create_directory(InTarget("sub"));
    Put("sub/old", 1);
    fs::create_symlink(bait.PathOf("bait"), InTarget("link"));
    ASSERT_EQ(mkfifo(InTarget("fifo").c_str(), 0600), 0);
    EXPECT_FALSE(DeleteOldestFile(target));
    Put("young", 2000);
    EXPECT_TRUE(DeleteOldestFile(target));
    EXPECT_FALSE(DeleteOldestFile(target));
    EXPECT_THAT(Names(), UnorderedElementsAreArray({"sub", "link", "fifo"}));
    EXPECT_TRUE(fs::exists(InTarget("sub/old")));
}

TEST_F(OldestFile, IsFoundWithSlashesAtTheFoldersEnd) {
    Put("a", 1000);
    Put("b", 2000);
    EXPECT_TRUE(DeleteOldestFile(target + "/"));
    EXPECT_TRUE(DeleteOldestFile(target + "//"));
}

TEST_F(OldestFile, ComesFromOneCommandWithThePathUnquoted) {
    const test::ProgramsOnPath programs;
    programs.WriteNoting("find", "echo /my/file");
    programs.WriteNoting("xargs", "cat > /dev/null; exec \"$@\"");
    programs.WriteNoting("ls", "echo /my/file");
    programs.WriteNoting("head", "cat");
    EXPECT_FALSE(DeleteOldestFile("/my card"));
    std::vector<std::string> notes;
    std::istringstream text(programs.Notes());
    for (std::string line; std::getline(text, line);) {
        notes.push_back(line);
    }
    EXPECT_THAT(notes, UnorderedElementsAreArray({"find </my> <card> <-maxdepth> <1> <-type> <f>", "xargs <ls> <-tr>",
                                                  "ls <-tr>", "head <-1>"}));
}

TEST_F(OldestFile, IsTheFirstLineOfWhatIsPrinted) {
    const test::ProgramsOnPath programs;
    Put("a", 1000);
    Put("b", 2000);
    programs.Write("head", "printf '" + InTarget("b") + "\\n" + InTarget("a") + "\\n'");
    EXPECT_TRUE(DeleteOldestFile(target));
    EXPECT_THAT(Names(), UnorderedElementsAreArray({"a"}));
    programs.Write("head", "printf '\\n" + InTarget("a") + "\\n'");
    EXPECT_FALSE(DeleteOldestFile(target));
    programs.Write("head", "printf '" + InTarget("a") + "'");
    EXPECT_TRUE(DeleteOldestFile(target));
}

TEST_F(OldestFile, HasAPathOfAtMost255Characters) {
    const std::string longest(255 - InTarget("").size(), 'x');
    Put(longest, 1000);
    EXPECT_TRUE(DeleteOldestFile(target));
    Put(longest + "x", 1000);
    EXPECT_FALSE(DeleteOldestFile(target));
    EXPECT_THAT(Names(), UnorderedElementsAreArray({longest + "x"}));
}

TEST_F(OldestFile, IsNeverAnythingButARegularFileDirectlyInTheFolderWhateverThePrograms) {
    const test::ProgramsOnPath programs;
    fs::create_directory(InTarget("empty"));
    fs::create_directory(InTarget("sub"));
    Put("sub/file", 1);
    fs::create_symlink(bait.PathOf("bait"), InTarget("link"));
    fs::create_directory_symlink(bait.PathOf("sub"), InTarget("linked"));
    ASSERT_EQ(mkfifo(InTarget("fifo").c_str(), 0600), 0);
    fs::create_directory(folder.PathOf("target2"));
    const std::string neighbour = folder.Write("target2/file", "x");
    const std::string above = folder.Write("file", "x");
    const std::vector<std::string> names = Names();
    for (const std::string& printed : {std::string("bait"),
                                       std::string("./bait"),
                                       bait.PathOf("bait"),
                                       std::string("sub/bait"),
                                       std::string("-rf"),
                                       std::string("/"),
                                       std::string("."),
                                       std::string(".."),
                                       target,
                                       target + "/",
                                       InTarget("."),
                                       InTarget(".."),
                                       InTarget("../file"),
                                       InTarget("../target2/file"),
                                       InTarget("empty"),
                                       InTarget("empty/"),
                                       InTarget("sub/file"),
                                       InTarget("link"),
                                       InTarget("linked"),
                                       InTarget("linked/bait"),
                                       InTarget("fifo"),
                                       InTarget("missing"),
                                       neighbour,
                                       above,
                                       " " + above,
                                       InTarget("*")}) {
        programs.Write("head", "printf '%s\\n' '" + printed + "'");
        EXPECT_FALSE(DeleteOldestFile(target)) << printed;
    }
    EXPECT_THAT(Names(), UnorderedElementsAreArray(names));
    for (const std::string& path : {neighbour, above, InTarget("sub/file")}) {
        EXPECT_TRUE(fs::exists(path)) << path;
    }
}

TEST_F(OldestFile, IsNotRemovedWithoutADescriptorOrWithoutThePrograms) {
    Put("a", 1000);
    bool removed = true;
    {
        const test::FewDescriptorsLeft none(0);
        removed = DeleteOldestFile(target);
    }
    EXPECT_FALSE(removed);
    const test::EnvironmentVariable path("PATH", folder.GetPath());
    EXPECT_FALSE(DeleteOldestFile(target));
    EXPECT_THAT(Names(), UnorderedElementsAreArray({"a"}));
}

}  // namespace

}  // namespace kelto::halvek::handler
