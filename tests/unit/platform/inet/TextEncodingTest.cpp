#include "kelto/core/StringUtil.h"
#include "kelto/inet/TextEncoding.h"
#include "tests/support/Matchers.h"

#include <random>

namespace kelto::inet {

namespace {

using ::testing::Le;

constexpr size_t longestEncodedLine = 76;

/** What a reader makes of quoted-printable. */
std::string Decoded(const std::string& text) {
    std::string decoded;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '=') {
            decoded += text[at];
        } else if (text.at(at + 1) == '\n') {
            at += 1;
        } else {
            decoded += static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16));
            at += 2;
        }
    }
    return decoded;
}

void ExpectPlain(const std::string& text) {
    const EncodedText encoded = EncodeText(text);
    EXPECT_FALSE(encoded.isQuotedPrintable);
    EXPECT_EQ(encoded.data, text);
}

void ExpectEncoded(const std::string& text, const std::string& expected) {
    const EncodedText encoded = EncodeText(text);
    EXPECT_TRUE(encoded.isQuotedPrintable);
    EXPECT_EQ(encoded.data, expected);
}

TEST(EncodeText, AsciiStaysAsItIs) {
    ExpectPlain("");
    ExpectPlain("\n");
    ExpectPlain("Alarm at 14:05");
    ExpectPlain("\neventType = alarm\nsource = 1\n");
    ExpectPlain("a blank at the end \nand a tab\t\n ~!= .\n");
}

TEST(EncodeText, LinesOfAnyLineEndBecomeLinesOfLineFeeds) {
    EXPECT_EQ(EncodeText("a\r\nb\rc\nd\r\n").data, "a\nb\nc\nd\n");
    EXPECT_EQ(EncodeText("\xC3\xBC\r\n.\r\n").data, "=C3=BC\n=2E\n");
}

TEST(EncodeText, ADotAtTheBeginningOfALineIsEncoded) {
    ExpectEncoded(".", "=2E");
    ExpectEncoded("a\n.\n..b.\n", "a\n=2E\n=2E.b.\n");
}

TEST(EncodeText, BytesThatAreNoPrintableAsciiAreEncoded) {
    ExpectEncoded("\xC3\xBC", "=C3=BC");
    ExpectEncoded(std::string("\0\x01\x7F\xFF", 4), "=00=01=7F=FF");
    ExpectEncoded("\xC3\xBC = \t~", "=C3=BC =3D \t~");
}

TEST(EncodeText, BlanksAtTheEndOfAnEncodedLineSurvive) {
    ExpectEncoded("\xFF \n\t\n  \n", "=FF=20\n=09\n =20\n");
}

TEST(EncodeText, ALineOfTheLongestLengthStaysAndALongerOneIsBroken) {
    ExpectPlain(std::string(998, 'x'));
    const std::string text(999, 'x');
    const EncodedText encoded = EncodeText(text);
    EXPECT_TRUE(encoded.isQuotedPrintable);
    EXPECT_EQ(encoded.data.substr(0, 78), std::string(75, 'x') + "=\nx");
    EXPECT_EQ(Decoded(encoded.data), text);
}

TEST(EncodeText, ALineIsBrokenOnlyWhereItHasTo) {
    ExpectEncoded("\xFF" + std::string(73, 'x'), "=FF" + std::string(73, 'x'));
    ExpectEncoded("\xFF" + std::string(74, 'x'), "=FF" + std::string(72, 'x') + "=\nxx");
    ExpectEncoded(std::string(73, 'x') + "\xFF", std::string(73, 'x') + "=FF");
    ExpectEncoded(std::string(74, 'x') + "\xFF", std::string(74, 'x') + "=\n=FF");
}

TEST(EncodeText, ADotBehindABreakIsEncodedToo) {
    ExpectEncoded("\xFF" + std::string(72, 'x') + "..", "=FF" + std::string(72, 'x') + "=\n=2E.");
}

TEST(EncodeText, AnyTextSurvivesInShortLinesWithoutADotAtTheBeginning) {
    std::mt19937 random(1);
    const std::string characters = "..=  \t\nxyz\xC3\xBC";
    for (int round = 0; round < 2000; ++round) {
        std::string text = "\xC3\xBC";
        for (auto length = random() % 400; length > 0; --length) {
            text += characters[random() % characters.size()];
        }
        const std::string encoded = EncodeText(text).data;
        ASSERT_EQ(Decoded(encoded), text);
        const std::vector<std::string> lines = core::StringUtil::Split(encoded, '\n');
        ASSERT_THAT(lines, Each(SizeIs(Le(longestEncodedLine)))) << encoded;
        ASSERT_THAT(lines, Each(Not(StartsWith(".")))) << encoded;
    }
}

}  // namespace

}  // namespace kelto::inet
