#include "companions/page/BodyReader.h"

#include <gtest/gtest.h>

#include <string>

namespace kelto::page {
namespace {

/** What is said of a body that is refused; empty if it is not. */
template <typename Use>
std::string RefusalOf(const std::string& body, const Use& use) {
    try {
        BodyReader reader(body);
        use(reader);
    } catch (const BodyError& error) {
        return error.what();
    }
    return {};
}

std::string RefusalOf(const std::string& body) {
    return RefusalOf(body, [](const BodyReader&) {});
}

TEST(BodyReaderTest, FieldsComeOutWhateverTheirOrder) {
    BodyReader reader(R"({"active":true,"index":-2147483648,"bank":"\u00e4"})");
    EXPECT_EQ(reader.TakeText("bank"), "\xc3\xa4");
    EXPECT_EQ(reader.TakeInt("index"), INT32_MIN);
    EXPECT_TRUE(reader.TakeBool("active"));
    EXPECT_NO_THROW(reader.ExpectNoMore());
}

TEST(BodyReaderTest, WhatIsNoObjectIsRefused) {
    for (const std::string& body : {std::string(), std::string("{"), std::string("[]"), std::string("null"),
                                    std::string("{}{}"), std::string("{\"a\":\"\xff\"}"), std::string(4'096, '[')}) {
        EXPECT_EQ(RefusalOf(body), "The body is not a JSON object") << body.substr(0, 20);
    }
}

TEST(BodyReaderTest, AFieldThatIsMissingOrLeftIsNamed) {
    const auto takeOne = [](BodyReader& reader) {
        reader.TakeBool("a");
        reader.ExpectNoMore();
    };
    EXPECT_EQ(RefusalOf("{}", takeOne), "\"a\" is missing");
    EXPECT_NE(RefusalOf(R"({"a":true,"misspelt":1})", takeOne).find("\"misspelt\""), std::string::npos);
    EXPECT_EQ(RefusalOf(R"({"a":true})", takeOne), "");
}

TEST(BodyReaderTest, AnIntIsAWholeNumberOf32Bits) {
    for (const char* const value : {"2147483648", "-2147483649", "1.0", "1e3", "\"1\"", "true", "null", "[1]",
                                    "18446744073709551615", "123456789012345678901234567890"}) {
        const std::string body = std::string("{\"a\":") + value + "}";
        EXPECT_EQ(RefusalOf(body, [](BodyReader& reader) { reader.TakeInt("a"); }),
                  "\"a\" is not a whole number of 32 bits")
            << value;
    }
    EXPECT_EQ(BodyReader(R"({"a":2147483647})").TakeInt("a"), INT32_MAX);
}

TEST(BodyReaderTest, ABoolIsNothingElse) {
    for (const char* const value : {"0", "1", "\"true\"", "null"}) {
        const std::string body = std::string("{\"a\":") + value + "}";
        EXPECT_EQ(RefusalOf(body, [](BodyReader& reader) { reader.TakeBool("a"); }), "\"a\" is not true or false");
    }
}

TEST(BodyReaderTest, ATextHasNoNullByte) {
    EXPECT_EQ(RefusalOf(R"({"a":"x\u0000y"})", [](BodyReader& reader) { reader.TakeText("a"); }),
              "\"a\" is not a text without null bytes");
    EXPECT_EQ(BodyReader(R"({"a":"x\ny"})").TakeText("a"), "x\ny");
}

TEST(BodyReaderTest, AnIdIsATextOrAWholeNumber) {
    EXPECT_EQ(BodyReader(R"({"a":3})").TakeId("a"), "3");
    EXPECT_EQ(BodyReader(R"({"a":"3 "})").TakeId("a"), "3 ");
    EXPECT_NE(RefusalOf(R"({"a":3.5})", [](BodyReader& reader) { reader.TakeId("a"); }), "");
}

TEST(BodyReaderTest, WhatMayBeMissingIsEmptyThen) {
    BodyReader reader("{}");
    EXPECT_EQ(reader.TakeTextIfThere("a"), "");
    EXPECT_TRUE(reader.TakePointsIfThere("a").empty());
    EXPECT_TRUE(reader.TakeTextsIfThere("a").empty());
}

TEST(BodyReaderTest, PointsArePairsOfNumbers) {
    EXPECT_EQ(BodyReader(R"({"a":[[0,1],[0.5,-1e300]]})").TakePointsIfThere("a"),
              (BodyReader::Points{{0.0, 1.0}, {0.5, -1e300}}));
    for (const char* const value : {"1", "[1]", "[[1]]", "[[1,2,3]]", "[[\"1\",2]]", "{\"0\":[1,2]}", "null"}) {
        const std::string body = std::string("{\"a\":") + value + "}";
        EXPECT_NE(RefusalOf(body, [](BodyReader& reader) { reader.TakePointsIfThere("a"); }), "") << value;
    }
}

TEST(BodyReaderTest, TextsAreAnObjectOfThem) {
    EXPECT_EQ(BodyReader(R"({"a":{"b":"1","":"2"}})").TakeTextsIfThere("a"),
              (BodyReader::Texts{{"", "2"}, {"b", "1"}}));
    for (const char* const value : {"[\"b\"]", "\"b\"", R"({"b":1})", R"({"b":"\u0000"})"}) {
        const std::string body = std::string("{\"a\":") + value + "}";
        EXPECT_NE(RefusalOf(body, [](BodyReader& reader) { reader.TakeTextsIfThere("a"); }), "") << value;
    }
}

}  // namespace
}  // namespace kelto::page
