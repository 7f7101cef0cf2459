#include "companions/ctl/StorePositions.h"
#include "tests/fakes/PositionsComparison.h"

#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

using test::ParsedStore;
using test::ParseWithPositions;
using test::ParseWithTheStore;
using ::testing::Optional;

StorePositions PositionsOf(std::string text) {
    StorePositions positions;
    positions.Add("a.ini", std::move(text));
    return positions;
}

/** Line and column of a key's value. */
std::pair<unsigned, unsigned> ValueAt(const StorePositions& positions) {
    const Position found = positions.FindValue("g", "key").value();
    return {found.line, found.column};
}

TEST(StorePositions, AKeyStandsWhereItBeginsInItsLine) {
    EXPECT_THAT(PositionsOf("[g]\n\n \tkey = v\n").Find("g", "key"), Optional(Position{"a.ini", 3, 3}));
}

TEST(StorePositions, AGroupStandsWhereItsFirstHeaderBegins) {
    EXPECT_THAT(PositionsOf("# c\n  [g]\n[h]\n[g]\n").Find("g"), Optional(Position{"a.ini", 2, 3}));
}

TEST(StorePositions, AValueStandsBehindTheBlanksThatFollowTheFirstEqualsSign) {
    EXPECT_EQ(ValueAt(PositionsOf("[g]\nkey=v=w\n")), std::pair(2U, 5U));
    EXPECT_EQ(ValueAt(PositionsOf("[g]\n key\t= \tv w \r\n")), std::pair(2U, 9U));
}

TEST(StorePositions, AnEmptyValueStandsBehindTheEqualsSign) {
    EXPECT_EQ(ValueAt(PositionsOf("[g]\nkey=\n")), std::pair(2U, 5U));
    EXPECT_EQ(ValueAt(PositionsOf("[g]\nkey= \t\r\n")), std::pair(2U, 5U));
}

TEST(StorePositions, ColumnsCountCharactersAndEachByteThatIsNone) {
    EXPECT_EQ(PositionsOf("[g]\n\xc3\xa4\xc3\xb6=x\n").FindValue("g", "\xc3\xa4\xc3\xb6")->column, 4U);
    EXPECT_EQ(PositionsOf("[g]\n\xff\xfe=x\n").FindValue("g", "\xff\xfe")->column, 4U);
}

TEST(StorePositions, WhatStandsInNoFileHasGroupsAndKeysAndNoLines) {
    core::IniFile fetched;
    fetched.AddGroup("g")["key"] = "two\nlines";
    fetched.AddGroup("h");
    const Store store{.path = "", .files = {}, .fetched = fetched};
    const StorePositions positions(store);
    EXPECT_EQ(positions.AllLines().size(), 3U);
    EXPECT_EQ(positions.Entries("g", "key").back()->value, "two\nlines");
    EXPECT_FALSE(positions.FindValue("g", "key").value().IsInAFile());
    EXPECT_FALSE(positions.Find("h").value().IsInAFile());
    EXPECT_EQ(positions.Find("i"), std::nullopt);
    EXPECT_FALSE(StorePositions::BeginOf(store).IsInAFile());
}

TEST(StorePositions, WhatIsNotThereHasNoPlace) {
    const StorePositions positions = PositionsOf("[g]\nkey=v\n");
    EXPECT_EQ(positions.Find("h"), std::nullopt);
    EXPECT_EQ(positions.Find("h", "key"), std::nullopt);
    EXPECT_EQ(positions.Find("g", "Key"), std::nullopt);
    EXPECT_EQ(positions.FindValue("g", "Key"), std::nullopt);
    EXPECT_TRUE(positions.Entries("h", "key").empty());
    EXPECT_TRUE(positions.Headers("h").empty());
}

TEST(StorePositions, OfSeveralTheKeyThatIsReadLastHolds) {
    StorePositions positions;
    positions.Add("a.ini", "[g]\nkey=1\nkey=2\n");
    positions.Add("b.ini", "[h]\n[g]\nkey=3\n");
    EXPECT_THAT(positions.Find("g", "key"), Optional(Position{"b.ini", 3, 1}));
    ASSERT_EQ(positions.Entries("g", "key").size(), 3U);
    EXPECT_EQ(positions.Entries("g", "key").front()->value, "1");
    EXPECT_EQ(positions.Headers("g").size(), 2U);
}

TEST(StorePositions, AFurtherFileBeginsWithoutAGroup) {
    StorePositions positions;
    positions.Add("a.ini", "[g]\n");
    positions.Add("b.ini", "key=1\n");
    ASSERT_NE(positions.FirstMalformed(), nullptr);
    EXPECT_EQ(positions.FirstMalformed()->kind, StorePositions::Kind::KeyBeforeGroup);
    EXPECT_EQ(positions.KeyPosition(*positions.FirstMalformed()), (Position{"b.ini", 1, 1}));
}

TEST(StorePositions, LinesBehindAMalformedOneAreTakenToo) {
    const StorePositions positions = PositionsOf("[g]\nnonsense\n[h\nkey=1\n");
    EXPECT_EQ(positions.FirstMalformed()->number, 2U);
    EXPECT_THAT(positions.Find("g", "key"), Optional(Position{"a.ini", 4, 1}));
}

TEST(StorePositions, MovedItKeepsItsTexts) {
    StorePositions first = PositionsOf("[g]\nkey=v\n");
    const StorePositions second = std::move(first);
    EXPECT_EQ(second.Entries("g", "key").front()->value, "v");
    EXPECT_EQ(second.Headers("g").front()->text, "[g]");
}

// --- the same as the store's own parser

std::string RandomText(std::mt19937& random) {
    static constexpr std::string_view alphabet = "[]=#; \t\r\nab\xc3\xa4\xff\x01/";
    std::string text(random() % 60, '\0');
    for (char& byte : text) {
        byte = random() % 40 == 0 ? static_cast<char>(random() % 256) : alphabet[random() % alphabet.size()];
    }
    return text;
}

std::string ReadExample() {
    std::ifstream file(HALVEK_SOURCE_FOLDER "/examples/demo.ini");
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/** The text with a few bytes put in, taken out or replaced. */
std::string Mutated(std::string text, std::mt19937& random) {
    for (size_t times = random() % 4; times > 0 && !text.empty(); --times) {
        const size_t at = random() % text.size();
        switch (random() % 3) {
            case 0:
                text.erase(at, 1 + random() % 5);
                break;
            case 1:
                text.insert(at, RandomText(random));
                break;
            default:
                text[at] = static_cast<char>(random() % 256);
        }
    }
    return text;
}

void ExpectSame(const std::vector<std::string>& texts) {
    const ParsedStore expected = ParseWithTheStore(texts);
    const ParsedStore actual = ParseWithPositions(texts);
    ASSERT_EQ(actual.refusal, expected.refusal) << ::testing::PrintToString(texts);
    ASSERT_EQ(actual.groups, expected.groups) << ::testing::PrintToString(texts);
}

TEST(StorePositions, RandomFilesAreTakenAsTheStoreTakesThem) {
    std::mt19937 random(1);
    size_t refused = 0;
    for (int i = 0; i < 50'000; ++i) {
        const std::vector<std::string> texts = {RandomText(random), RandomText(random)};
        ExpectSame(texts);
        refused += ParseWithTheStore(texts).refusal.empty() ? 0 : 1;
    }
    // Both kinds were there.
    EXPECT_GT(refused, 1'000U);
    EXPECT_LT(refused, 49'900U);
}

TEST(StorePositions, AMutatedExampleIsTakenAsTheStoreTakesIt) {
    const std::string example = ReadExample();
    ASSERT_GT(example.size(), 1'000U);
    ExpectSame({example});
    std::mt19937 random(2);
    for (int i = 0; i < 2'000; ++i) {
        ExpectSame({Mutated(example, random), Mutated(example, random)});
    }
}

}  // namespace

}  // namespace kelto::halvek::ctl
