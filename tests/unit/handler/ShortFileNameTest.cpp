#include "handler/ShortFileName.h"

#include <gtest/gtest.h>

namespace kelto::halvek::handler {

namespace {

TEST(ShortFileName, HasEightCharactersBeforeTheExtensionAndNoColons) {
    EXPECT_EQ(MakeShortFileName("/media/sd/12:30:45 front door.jpg"), "/media/sd/12_30_45.jpg");
    EXPECT_EQ(MakeShortFileName("/media/sd/123456789.jpg"), "/media/sd/12345678.jpg");
}

TEST(ShortFileName, LeavesAShortOneAsItIs) {
    EXPECT_EQ(MakeShortFileName("/media/sd/12345678.jpg"), "/media/sd/12345678.jpg");
    EXPECT_EQ(MakeShortFileName("/media/sd/a"), "/media/sd/a");
}

TEST(ShortFileName, KeepsTheWholeExtensionAndOnlyTheLast) {
    EXPECT_EQ(MakeShortFileName("/f/123456789.snapshot:large"), "/f/12345678.snapshot_large");
    EXPECT_EQ(MakeShortFileName("/f/a.b.c.d.e.f.jpg"), "/f/a.b.c.d..jpg");
    EXPECT_EQ(MakeShortFileName("/f/123456789"), "/f/12345678");
    EXPECT_EQ(MakeShortFileName("/f/123456789."), "/f/12345678");
    EXPECT_EQ(MakeShortFileName("/f/.123456789"), "/f/.1234567");
}

TEST(ShortFileName, IsMeantToTakeTheColonsOfTheFolderTooSoThatItMayLeadElsewhere) {
    EXPECT_EQ(MakeShortFileName("/media/card:1/a:b.jpg"), "/media/card_1/a_b.jpg");
}

TEST(ShortFileName, StaysInItsFolder) {
    EXPECT_EQ(MakeShortFileName("/123456789.jpg"), "/12345678.jpg");
    EXPECT_EQ(MakeShortFileName("123456789.jpg"), "./12345678.jpg");
    EXPECT_EQ(MakeShortFileName("/f.g/123456789"), "/f.g/12345678");
}

TEST(ShortFileName, CutsBytesNotLetters) {
    EXPECT_EQ(MakeShortFileName("/f/1234567\xc3\xa4x.jpg"), "/f/1234567\xc3.jpg");
}

}  // namespace

}  // namespace kelto::halvek::handler
