#include "companions/ctl/Failure.h"
#include "companions/ctl/OptionReader.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;
using ::testing::ThrowsMessage;

const std::vector<OptionReader::Option> known = {{"--value", true}, {"--flag", false}};

TEST(OptionReader, AValueIsTheNextWordOrStandsBehindAnEqualsSign) {
    EXPECT_THAT(OptionReader({"--value", "one"}, known).Value("--value"), Optional(std::string("one")));
    EXPECT_THAT(OptionReader({"--value=one=two"}, known).Value("--value"), Optional(std::string("one=two")));
    EXPECT_THAT(OptionReader({"--value="}, known).Value("--value"), Optional(std::string()));
    EXPECT_THAT(OptionReader({"--value", "--flag"}, known).Value("--value"), Optional(std::string("--flag")));
}

TEST(OptionReader, WithADefaultOnlyANumberIsTakenForTheValue) {
    const std::vector<OptionReader::Option> wait = {{"--wait", true, "30"}};
    EXPECT_THAT(OptionReader({"--wait"}, wait).Value("--wait"), Optional(std::string("30")));
    EXPECT_THAT(OptionReader({"--wait", "5", "Door"}, wait).Value("--wait"), Optional(std::string("5")));
    const OptionReader beforeAWord({"--wait", "Door"}, wait);
    EXPECT_THAT(beforeAWord.Value("--wait"), Optional(std::string("30")));
    EXPECT_THAT(beforeAWord.Words(), ElementsAre("Door"));
    EXPECT_THAT(OptionReader({"--wait=soon"}, wait).Value("--wait"), Optional(std::string("soon")));
}

TEST(OptionReader, OfSeveralValuesTheLastCounts) {
    EXPECT_THAT(OptionReader({"--value=one", "--value", "two"}, known).Value("--value"), Optional(std::string("two")));
}

TEST(OptionReader, WhatIsNotThereHasNoValue) {
    const OptionReader options({"word"}, known);
    EXPECT_FALSE(options.Has("--flag"));
    EXPECT_EQ(options.Value("--value"), std::nullopt);
    EXPECT_EQ(options.Number("--value", 7, 0, 9), 7);
}

TEST(OptionReader, WordsKeepTheirOrderAmongOptions) {
    const OptionReader options({"one", "--flag", "-", "", "key=value"}, known);
    EXPECT_TRUE(options.Has("--flag"));
    EXPECT_THAT(options.Words(), ElementsAre("one", "-", "", "key=value"));
}

TEST(OptionReader, BehindTwoDashesNothingIsAnOption) {
    const OptionReader options({"--", "--flag", "--unheard-of"}, known);
    EXPECT_FALSE(options.Has("--flag"));
    EXPECT_THAT(options.Words(), ElementsAre("--flag", "--unheard-of"));
}

TEST(OptionReader, WhatIsNotListedMayBeLeftToSomebodyElse) {
    const OptionReader options({"--other", "--", "--flag"}, known, OptionReader::Unknown::Kept);
    EXPECT_THAT(options.Words(), ElementsAre("--other", "--", "--flag"));
}

TEST(OptionReader, AWrongCommandLineIsAUsageError) {
    const auto read = [](std::vector<std::string> words) {
        return [words = std::move(words)] { OptionReader(words, known); };
    };
    EXPECT_THAT(read({"--other=1"}), ThrowsMessage<UsageError>("unknown option --other"));
    EXPECT_THAT(read({"-x"}), ThrowsMessage<UsageError>("unknown option -x"));
    EXPECT_THAT(read({"--flag=yes"}), ThrowsMessage<UsageError>("--flag takes no value"));
    EXPECT_THAT(read({"--value"}), ThrowsMessage<UsageError>("--value wants a value"));
}

TEST(OptionReader, ANumberIsOneOfItsRange) {
    const auto number = [](const std::string& text) {
        return OptionReader({"--value", text}, known).Number("--value", 0, 1, 9);
    };
    EXPECT_EQ(number("1"), 1);
    EXPECT_EQ(number("9"), 9);
    for (const char* const text : {"0", "10", "-1", "", "1x", "99999999999"}) {
        EXPECT_THAT([&] { number(text); },
                    ThrowsMessage<UsageError>(std::string("--value is a number from 1 to 9, not ") + text));
    }
    EXPECT_THAT(OptionReader({}, known).Words(), IsEmpty());
}

}  // namespace

}  // namespace kelto::halvek::ctl
