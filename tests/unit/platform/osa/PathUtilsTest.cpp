#include "kelto/osa/PathUtils.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <climits>
#include <filesystem>

namespace kelto::osa {

namespace {

TEST(PathUtils, RealPathFollowsLinksAndDots) {
    const test::TempDir folder;
    const std::string root = std::filesystem::canonical(folder.GetPath());
    std::filesystem::create_directory(folder.PathOf("real"));
    std::filesystem::create_symlink("real", folder.PathOf("link"));
    folder.Write("real/file", "");
    EXPECT_EQ(PathUtils::RealPath(folder.PathOf("link/./../link//file")), root + "/real/file");
    EXPECT_EQ(PathUtils::RealPath(folder.PathOf("link/")), root + "/real");
    EXPECT_EQ(PathUtils::RealPath("/"), "/");
}

TEST(PathUtils, RealPathIsEmptyOnFailure) {
    const test::TempDir folder;
    folder.Write("file", "");
    std::filesystem::create_symlink("loop", folder.PathOf("loop"));
    std::filesystem::create_symlink("nowhere", folder.PathOf("dangling"));
    for (const std::string& path :
         {std::string(), folder.PathOf("nowhere"), folder.PathOf("file/below"), folder.PathOf("loop"),
          folder.PathOf("dangling"), folder.PathOf(std::string(NAME_MAX + 1, 'x')), std::string(PATH_MAX, 'x')}) {
        EXPECT_EQ(PathUtils::RealPath(path), "") << path;
    }
}

TEST(PathUtils, PathConcatPutsExactlyOneSlashBetween) {
    const struct {
        const char* directory;
        const char* name;
        const char* path;
    } table[] = {
        {"/a", "b", "/a/b"},       {"/a/", "b", "/a/b"},
        {"/a", "/b", "/a/b"},      {"/a//", "//b", "/a/b"},
        {"/", "b", "/b"},          {"", "b", "/b"},
        {"/a", "", "/a/"},         {"", "", "/"},
        {"a/b", "c/d", "a/b/c/d"}, {"/a//b", "c//d/", "/a//b/c//d/"},
        {"/", "/", "/"},           {".", "x", "./x"},
    };
    for (const auto& [directory, name, path] : table) {
        EXPECT_EQ(PathUtils::PathConcat(directory, name), path) << directory << " and " << name;
    }
}

TEST(PathUtils, FormatFileNameExpandsTheConversionsOfStrftimeInLocalTime) {
    const test::FakeClock clock("2025-03-05 07:08:09", "XXX-05:45");
    const std::pair<const char*, const char*> table[] = {
        {"snapshot.jpg", "snapshot.jpg"},
        {"%Y-%m-%d_%H%M%S.jpg", "2025-03-05_070809.jpg"},
        {"%j", "064"},
        {"%A %B", "Wednesday March"},
        {"100%%", "100%"},
        {"%z", "+0545"},
        {"", ""},
        {" ", " "},
        {"a%nb%t", "a\nb\t"},
        {"%p", "AM"},
        {"\xc3\xa4%y",
         "\xc3\xa4"
         "25"},
    };
    for (const auto& [pattern, name] : table) {
        EXPECT_EQ(PathUtils::FormatFileName(pattern), name) << pattern;
    }
}

TEST(PathUtils, FormatFileNameFollowsSummerTime) {
    test::FakeClock clock("2025-03-30 01:59:59", "CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(PathUtils::FormatFileName("%H:%M:%S %Z"), "01:59:59 CET");
    clock.Set("2025-03-30 03:00:00");
    EXPECT_EQ(PathUtils::FormatFileName("%H:%M:%S %Z"), "03:00:00 CEST");
}

TEST(PathUtils, FormatFileNameHoldsLongNames) {
    const test::FakeClock clock("2025-03-05 07:08:09");
    for (const size_t length : {254U, 255U, 256U, 257U, 1023U, 1024U, 5000U, 65000U}) {
        const std::string text(length, 'x');
        EXPECT_EQ(PathUtils::FormatFileName(text + "%Y"), text + "2025") << length;
    }
}

TEST(PathUtils, FormatFileNameOfAnEndlessPatternIsEmpty) {
    EXPECT_EQ(PathUtils::FormatFileName(std::string(70000, 'x')), "");
}

TEST(PathUtils, FormatFileNameLeavesAHalfConversionAtTheEnd) {
    EXPECT_EQ(PathUtils::FormatFileName("a%"), "a%");
}

TEST(PathUtils, DirnameIsWhatStandsBeforeTheLastSlash) {
    const std::pair<const char*, const char*> table[] = {
        {"/a/b/c.jpg", "/a/b"}, {"/c.jpg", "/"}, {"c.jpg", "."}, {"a/c.jpg", "a"},
        {"/a/b/", "/a/b"},      {"/", "/"},      {"", "."},      {"/a.d/c", "/a.d"},
    };
    for (const auto& [path, directory] : table) {
        EXPECT_EQ(PathUtils::Dirname(path), directory) << path;
    }
}

TEST(PathUtils, AFileNameIsItsStemAndItsExtension) {
    const struct {
        const char* path;
        const char* stem;
        const char* extension;
    } table[] = {
        {"/a/b/snapshot.jpg", "snapshot", "jpg"},
        {"snapshot.jpg", "snapshot", "jpg"},
        {"/a/archive.tar.gz", "archive.tar", "gz"},
        {"/a/noextension", "noextension", ""},
        {"/a.d/noextension", "noextension", ""},
        {"/a/.hidden", ".hidden", ""},
        {"/a/.hidden.jpg", ".hidden", "jpg"},
        {"/a/trailing.", "trailing", ""},
        {"/a/", "", ""},
        {"", "", ""},
        {".", ".", ""},
        {"..", ".", ""},
    };
    for (const auto& [path, stem, extension] : table) {
        EXPECT_EQ(PathUtils::BasenameWithoutExtension(path), stem) << path;
        EXPECT_EQ(PathUtils::FileExt(path), extension) << path;
    }
}

}  // namespace

}  // namespace kelto::osa
