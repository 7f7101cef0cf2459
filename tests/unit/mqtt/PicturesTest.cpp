#include "companions/mqtt/Pictures.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <chrono>
#include <optional>
#include <string>

namespace kelto::halvek::mqtt {

namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

TEST(PicturesTest, TheFileIsTakenAsItIs) {
    const test::TempDir folder;
    const std::string bytes("\xff\xd8\0\n]", 5);
    folder.Write("now.jpg", bytes);
    EXPECT_EQ(Pictures().Take(folder.PathOf("now.jpg"), milliseconds(0)), bytes);
}

TEST(PicturesTest, TheNextOneMayBeTakenASecondLaterWhetherThisOneIsThereOrNot) {
    Pictures pictures;
    EXPECT_EQ(pictures.NextAt(), milliseconds(0));
    pictures.Take("/nowhere", milliseconds(5000));
    EXPECT_EQ(pictures.NextAt(), milliseconds(6000));
}

TEST(PicturesTest, TheLargestOneIsTakenAndNoneBeyond) {
    const test::TempDir folder;
    const std::string path = folder.PathOf("now.jpg");
    Pictures pictures;
    folder.Write("now.jpg", std::string(Pictures::largest, 'x'));
    EXPECT_EQ(pictures.Take(path, milliseconds(0)).value().size(), Pictures::largest);
    folder.Write("now.jpg", std::string(Pictures::largest + 1, 'x'));
    CaptureStderr();
    EXPECT_EQ(pictures.Take(path, milliseconds(0)), std::nullopt);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr(path + " has more than 200000 bytes"));
}

TEST(PicturesTest, WhatIsNoFileIsNotWaitedFor) {
    const test::TempDir folder;
    const std::string path = folder.PathOf("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    CaptureStderr();
    EXPECT_EQ(Pictures().Take(path, milliseconds(0)), std::nullopt);
    EXPECT_EQ(Pictures().Take(folder.GetPath(), milliseconds(0)), std::nullopt);
    const std::string told = GetCapturedStderr();
    EXPECT_THAT(told, HasSubstr(path + " is no ordinary file"));
    EXPECT_THAT(told, HasSubstr(folder.GetPath() + " is no ordinary file"));
}

TEST(PicturesTest, AReasonIsSaidOnceUntilThereHasBeenAPicture) {
    const test::TempDir folder;
    const std::string path = folder.PathOf("now.jpg");
    Pictures pictures;
    CaptureStderr();
    pictures.Take(path, milliseconds(0));
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("No picture is published: " + path));
    CaptureStderr();
    pictures.Take(path, milliseconds(0));
    EXPECT_EQ(GetCapturedStderr(), "");
    folder.Write("now.jpg", "x");
    EXPECT_EQ(pictures.Take(path, milliseconds(0)), "x");
    folder.Write("now.jpg", "");
    CaptureStderr();
    EXPECT_EQ(pictures.Take(path, milliseconds(0)), std::nullopt);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr(path + " is empty"));
}

TEST(PicturesTest, ThreeFailuresInARowEndThem) {
    const test::TempDir folder;
    const std::string path = folder.PathOf("now.jpg");
    folder.Write("now.jpg", "x");
    Pictures pictures;
    pictures.NoteFailure();
    pictures.NoteFailure();
    pictures.NoteSurvived();
    pictures.NoteFailure();
    pictures.NoteFailure();
    EXPECT_EQ(pictures.Take(path, milliseconds(0)), "x");
    CaptureStderr();
    pictures.NoteFailure();
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("no more are published"));
    EXPECT_EQ(pictures.Take(path, milliseconds(0)), std::nullopt);
}

}  // namespace

}  // namespace kelto::halvek::mqtt
