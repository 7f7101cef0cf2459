#include "companions/ctl/Terminal.h"

#include <gmock/gmock.h>

#include <string>
#include <string_view>

namespace kelto::halvek::ctl {

namespace {

TEST(Terminal, WhatWouldSteerATerminalIsWrittenOut) {
    EXPECT_EQ(Terminal::Escape("\x1b[31m\r\n\t\x7f"), R"(\x1b[31m\x0d\x0a\x09\x7f)");
    EXPECT_EQ(Terminal::Escape(std::string_view("\0", 1)), R"(\x00)");
    // The control sequence introducer of one character.
    EXPECT_EQ(Terminal::Escape("\xc2\x9b"), R"(\xc2\x9b)");
}

TEST(Terminal, BytesThatAreNoCharactersAreWrittenOut) {
    EXPECT_EQ(Terminal::Escape("a\xff\xc3"), R"(a\xff\xc3)");
    EXPECT_EQ(Terminal::Escape("\xc0\xaf"), R"(\xc0\xaf)");
}

TEST(Terminal, CodePointsThatNoTextMayHoldAreWrittenOut) {
    EXPECT_EQ(Terminal::Escape("a\xef\xbf\xbe\xef\xbf\xbf"), R"(a\xef\xbf\xbe\xef\xbf\xbf)");
    EXPECT_EQ(Terminal::Escape("\xef\xb7\x90\xf4\x8f\xbf\xbf"), R"(\xef\xb7\x90\xf4\x8f\xbf\xbf)");
    // The ones beside them.
    EXPECT_EQ(Terminal::Escape("\xef\xbf\xbd\xef\xb7\x8f"), "\xef\xbf\xbd\xef\xb7\x8f");
}

TEST(Terminal, AllElseStandsAsItIs) {
    EXPECT_EQ(Terminal::Escape("Tür \\x1b 門"), "Tür \\x1b 門");
    EXPECT_EQ(Terminal::Escape(""), "");
}

TEST(Terminal, APasswordIsNeverShownHoweverItsKeyIsWritten) {
    EXPECT_EQ(Terminal::ShownValue("Password", "secret"), "***");
    EXPECT_EQ(Terminal::ShownValue("PASSWORD", ""), "***");
    EXPECT_EQ(Terminal::ShownValue("Passwords", "x\n"), R"(x\x0a)");
}

TEST(Terminal, WhereNoTerminalIsNothingIsColoured) {
    testing::internal::CaptureStdout();
    const std::string coloured = Terminal::Coloured(Terminal::Colour::Red, "text");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(coloured, "text");
}

TEST(Terminal, AComplaintIsOneLine) {
    testing::internal::CaptureStderr();
    Terminal::Complain("two\nlines");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "halvekctl: two\\x0alines\n");
}

}  // namespace

}  // namespace kelto::halvek::ctl
