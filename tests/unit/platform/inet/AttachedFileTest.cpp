#include "kelto/inet/AttachedFile.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"
#include "tests/support/Unprivileged.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>

namespace {

/** Called before each read. */
std::function<void()> onRead;

}  // namespace

// The program's own definition stands before the C library's.
extern "C" ssize_t read(int fd, void* buffer, size_t size) {
    if (onRead) {
        onRead();
    }
    return syscall(SYS_read, fd, buffer, size);
}

namespace kelto::inet {

namespace {

std::string TypeName(const std::string& path) {
    const MediaType type = TypeOfFile(path);
    return std::string(type.type) + "/" + type.subtype;
}

TEST(TypeOfFile, GoesByTheExtensionInAnyCase) {
    EXPECT_EQ(TypeName("/tmp/snapshot/img2.jpg"), "image/jpeg");
    EXPECT_EQ(TypeName("/tmp/IMG.JPG"), "image/jpeg");
    EXPECT_EQ(TypeName("img.Jpeg"), "image/jpeg");
    EXPECT_EQ(TypeName("a.b.png"), "image/png");
    EXPECT_EQ(TypeName("a.gif"), "image/gif");
    EXPECT_EQ(TypeName("a.bmp"), "image/bmp");
    EXPECT_EQ(TypeName("a.webp"), "image/webp");
    EXPECT_EQ(TypeName("a.mp4"), "video/mp4");
    EXPECT_EQ(TypeName("a.avi"), "video/x-msvideo");
    EXPECT_EQ(TypeName("a.pdf"), "application/pdf");
    EXPECT_EQ(TypeName("a.txt"), "text/plain");
}

TEST(TypeOfFile, IsUnspecificForEverythingElse) {
    for (const char* const path : {"a", "a.", ".jpg", "a.jpgx", "a.jpg/b", "", "a.jp"}) {
        EXPECT_EQ(TypeName(path), "application/octet-stream") << path;
    }
}

class ReadAttachedFileTest : public ::testing::Test {
protected:
    static void ExpectRefused(const std::string& path, const std::string& reason) {
        EXPECT_THAT([&] { ReadAttachedFile(path); }, FailsWith("Cannot read " + path + ": " + reason));
    }

    const test::TempDir folder;
};

TEST_F(ReadAttachedFileTest, FilesOfAnySizeAreWhole) {
    for (const size_t size : {0, 1, 16383, 16384, 16385, 1000000}) {
        std::string content(size, '\0');
        for (size_t at = 0; at < size; ++at) {
            content[at] = static_cast<char>(at * 31 / 7);
        }
        EXPECT_TRUE(ReadAttachedFile(folder.Write("file", content)) == content) << size;
    }
}

TEST_F(ReadAttachedFileTest, AMissingFileIsRefused) {
    ExpectRefused(folder.PathOf("none"), "No such file or directory");
    ExpectRefused("", "No such file or directory");
}

TEST_F(ReadAttachedFileTest, WhatIsNoFileIsRefusedAndNotWaitedFor) {
    ExpectRefused(folder.GetPath(), "not a regular file");
    ASSERT_EQ(mkfifo(folder.PathOf("pipe").c_str(), 0600), 0);
    ExpectRefused(folder.PathOf("pipe"), "not a regular file");
}

TEST_F(ReadAttachedFileTest, AFileThatGrowsTooLargeWhileItIsReadIsRefused) {
    const std::string path = folder.Write("file", "small");
    onRead = [&] {
        onRead = nullptr;
        EXPECT_EQ(truncate(path.c_str(), (16 << 20) + 1), 0);
    };
    ExpectRefused(path, "more than 16 MiB");
    onRead = nullptr;
}

TEST_F(ReadAttachedFileTest, AFileThatMayNotBeReadIsRefused) {
    const std::string path = folder.Write("file", "secret");
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    const test::Unprivileged unprivileged;
    ExpectRefused(path, "Permission denied");
}

TEST(ReadAttachedFile, TakesSixteenMebibytesAndNoMore) {
    const test::TempDir folder;
    const std::string file = folder.Write("large.jpg", "");
    constexpr off_t largest = off_t{16} << 20;
    ASSERT_EQ(truncate(file.c_str(), largest), 0);
    EXPECT_EQ(ReadAttachedFile(file).size(), static_cast<size_t>(largest));
    ASSERT_EQ(truncate(file.c_str(), largest + 1), 0);
    EXPECT_THAT([&] { ReadAttachedFile(file); }, FailsWith("Cannot read " + file + ": more than 16 MiB"));
}

}  // namespace

}  // namespace kelto::inet
