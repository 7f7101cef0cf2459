#include "companions/common/Json.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace kelto::companion {

namespace {

std::string Quoted(std::string_view text) {
    return Json().String(text).Text();
}

TEST(Json, CommasStandBetweenWhatIsNextToEachOther) {
    Json json;
    json.BeginObject().Key("empty").BeginArray().EndArray();
    json.Key("list").BeginArray().Number(1).Bool(true).Null().BeginObject().EndObject().String("x").EndArray();
    json.Key("last").BeginObject().Key("inner").Bool(false).EndObject().EndObject();
    EXPECT_EQ(json.Text(), R"({"empty":[],"list":[1,true,null,{},"x"],"last":{"inner":false}})");
}

TEST(Json, NumbersAreExact) {
    EXPECT_EQ(Json().Number(std::numeric_limits<int64_t>::min()).Text(), "-9223372036854775808");
    EXPECT_EQ(Json().Number(std::numeric_limits<int64_t>::max()).Text(), "9223372036854775807");
}

TEST(Json, QuotesAndBackslashesAreEscaped) {
    EXPECT_EQ(Quoted(R"(a"b\c/d)"), R"("a\"b\\c/d")");
    EXPECT_EQ(Json().BeginObject().Key("\"").Null().EndObject().Text(), R"({"\"":null})");
}

TEST(Json, NoControlCharacterStandsThereRaw) {
    for (int code = 0; code < 0x20; ++code) {
        const std::string quoted = Quoted(std::string(1, static_cast<char>(code)));
        EXPECT_THAT(quoted, ::testing::MatchesRegex(R"re("\\(u00[01][0-9a-f]|[bfnrt])")re")) << code;
    }
    // A terminal acts on these too.
    EXPECT_THAT(Quoted("\x7f"), ::testing::StrCaseEq(R"("\u007f")"));
    EXPECT_THAT(Quoted("\xc2\x9b"), ::testing::StrCaseEq(R"("\u009b")"));
}

TEST(Json, CharactersOfAnyLanguageStandAsTheyAre) {
    EXPECT_EQ(Quoted("Tür 門 \U0001F6AA"), "\"Tür 門 \U0001F6AA\"");
}

TEST(Json, EachByteThatIsNoUtf8IsAReplacementCharacter) {
    EXPECT_EQ(Quoted("a\xff"
                     "b"),
              "\"a\uFFFD"
              "b\"");
    EXPECT_EQ(Quoted("\xc3"), "\"\uFFFD\"");
    // An overlong slash, half of a surrogate pair and what is beyond the last character.
    EXPECT_THAT(Quoted("\xc0\xaf"), ::testing::Not(::testing::HasSubstr("\xc0")));
    EXPECT_THAT(Quoted("\xed\xa0\x80"), ::testing::Not(::testing::HasSubstr("\xed")));
    EXPECT_THAT(Quoted("\xf4\x90\x80\x80"), ::testing::Not(::testing::HasSubstr("\xf4")));
}

}  // namespace

}  // namespace kelto::companion
