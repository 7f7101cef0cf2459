#include "tests/support/Base64.h"
#include "util/base64.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>

namespace {

/** Decodes into a buffer of exactly the length that is asked for first. */
std::string Decoded(const std::string& text) {
    std::string out(base64_decode_len(text.data(), text.size()), 'x');
    EXPECT_EQ(base64_decode(text.data(), text.size(), out.data(), out.size()), out.size());
    return out;
}

using Example = std::tuple<std::string, std::string>;

class Base64Examples : public ::testing::TestWithParam<Example> {};

TEST_P(Base64Examples, IsDecodedAndItsLengthIsKnownBefore) {
    const auto& [text, bytes] = GetParam();
    EXPECT_EQ(Decoded(text), bytes);
}

INSTANTIATE_TEST_SUITE_P(Standard, Base64Examples,
                         ::testing::Values(Example{"", ""}, Example{"Zg==", "f"}, Example{"Zm8=", "fo"},
                                           Example{"Zm9v", "foo"}, Example{"Zm9vYg==", "foob"},
                                           Example{"Zm9vYmE=", "fooba"}, Example{"Zm9vYmFy", "foobar"},
                                           Example{"QWxhcm0gYXQgJUg6JU0=", "Alarm at %H:%M"},
                                           Example{"+/+/", "\xFB\xFF\xBF"}, Example{"AAAA", std::string(3, '\0')}));

INSTANTIATE_TEST_SUITE_P(WithoutPadding, Base64Examples,
                         ::testing::Values(Example{"Zg", "f"}, Example{"Zm8", "fo"}, Example{"Zm9vYg", "foob"},
                                           Example{"Zg=", "f"}));

INSTANTIATE_TEST_SUITE_P(HalfAGroupAtTheEnd, Base64Examples,
                         ::testing::Values(Example{"Z", ""}, Example{"Zm9vY", "foo"}, Example{"Zm9vY===", "foo"}));

INSTANTIATE_TEST_SUITE_P(WithCharactersThatAreSkipped, Base64Examples,
                         ::testing::Values(Example{"Zm9v\r\nYmFy\n", "foobar"}, Example{" Z m 9 v ", "foo"},
                                           Example{"Z-m_9*v", "foo"}, Example{"=Zm9v", "foo"}, Example{"Z=m9v", "foo"},
                                           Example{"Zm=9v", "foo"}, Example{"\xFFZm9v\x80", "foo"},
                                           Example{std::string("Zm\0"
                                                               "9v",
                                                               5),
                                                   "foo"},
                                           Example{"****", ""}, Example{"====", ""}));

INSTANTIATE_TEST_SUITE_P(WithMoreBehindItsEnd, Base64Examples,
                         ::testing::Values(Example{"Zg==Zm9v", "f"}, Example{"Zm8=Zm9v", "fo"},
                                           Example{"Zg=\n=Zm9v", "f"}));

TEST(Base64, EveryByteAtEveryPlaceOfAGroupSurvives) {
    for (int value = 0; value < 256; ++value) {
        for (size_t place = 0; place < 3; ++place) {
            std::string bytes(3, '\x5A');
            bytes[place] = static_cast<char>(value);
            EXPECT_EQ(Decoded(kelto::test::Base64(bytes)), bytes);
        }
    }
}

TEST(Base64, TextsOfAnyLengthSurvive) {
    std::mt19937 random(1);
    for (size_t length = 0; length < 300; ++length) {
        std::string bytes(length, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
        }
        EXPECT_EQ(Decoded(kelto::test::Base64(bytes)), bytes);
    }
}

TEST(Base64, NoMoreIsWrittenThanThereIsRoomFor) {
    std::string out = "xxxxxx";
    EXPECT_EQ(base64_decode("Zm9vYmFy", 8, out.data(), 4), 4U);
    EXPECT_EQ(out, "foobxx");
    EXPECT_EQ(base64_decode("Zm9vYmFy", 8, nullptr, 0), 0U);
}

TEST(Base64, NothingIsWrittenBehindTheDecodedBytes) {
    std::string out = "xxxxxx";
    EXPECT_EQ(base64_decode("Zm8=", 4, out.data(), out.size()), 2U);
    EXPECT_EQ(out, "foxxxx");
}

TEST(Base64, NoMoreIsReadThanTheLengthSays) {
    EXPECT_EQ(base64_decode_len("Zm9vYmFy", 4), 3U);
    EXPECT_EQ(base64_decode_len(nullptr, 0), 0U);
}

}  // namespace
