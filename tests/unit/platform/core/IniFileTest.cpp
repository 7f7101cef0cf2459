#include "kelto/core/IniFile.h"
#include "kelto/osa/Exception.h"
#include "tests/support/Matchers.h"

namespace kelto::core {

namespace {

IniFile::Group WithValue(const std::string& value) {
    return {{"Key", value}};
}

TEST(IniFile, GroupsAndKeysStandInByteOrder) {
    IniFile ini;
    for (const char* name : {"b", "B", "a/x", "a", "a#1", "\xc3\xa4"}) {
        ini.AddGroup(name)[name] = "";
        ini.AddGroup("all")[name] = "";
    }
    EXPECT_THAT(ini.GetGroups(),
                ElementsAre(Key("B"), Key("a"), Key("a#1"), Key("a/x"), Key("all"), Key("b"), Key("\xc3\xa4")));
    EXPECT_THAT(ini.FindGroup("all"),
                ElementsAre(Key("B"), Key("a"), Key("a#1"), Key("a/x"), Key("b"), Key("\xc3\xa4")));
}

TEST(IniFile, AddingAGroupThatIsThereKeepsItsKeys) {
    IniFile ini;
    ini.AddGroup("g")["a"] = "1";
    ini.AddGroup("g")["b"] = "2";
    EXPECT_THAT(ini.FindGroup("g"), ElementsAre(Key("a"), Key("b")));
}

TEST(IniFile, AGroupThatIsNotThereIsEmptyAndIsNotMade) {
    const IniFile ini;
    EXPECT_THAT(ini.FindGroup("nowhere"), IsEmpty());
    EXPECT_THAT(ini.GetGroups(), IsEmpty());
}

TEST(IniFile, AValueIsFoundByGroupAndKey) {
    IniFile ini;
    ini.AddGroup("g")["k"] = "v";
    EXPECT_EQ(ini.GetValue("g", "k"), "v");
}

TEST(IniFile, AMissingGroupIsNamed) {
    const IniFile ini;
    EXPECT_THAT([&] { ini.GetValue("Events/Source#1", "Type"); }, FailsWith(HasSubstr("Events/Source#1")));
}

TEST(IniFile, AMissingKeyIsNamedWithItsGroup) {
    IniFile ini;
    ini.AddGroup("Events/Source#1")["type"] = "";
    EXPECT_THAT([&] { ini.GetValue("Events/Source#1", "Type"); },
                FailsWith(AllOf(HasSubstr("Type"), HasSubstr("Events/Source#1"))));
}

TEST(IniFile, TheStrictGettersNameTheMissingKey) {
    const IniFile::Group group;
    const auto namesTheKey = FailsWith(HasSubstr("Interval.sec"));
    EXPECT_THAT([&] { IniFile::GetValueFromGroup(group, "Interval.sec"); }, namesTheKey);
    EXPECT_THAT([&] { IniFile::GetIntFromGroup(group, "Interval.sec"); }, namesTheKey);
    EXPECT_THAT([&] { IniFile::GetBoolFromGroup(group, "Interval.sec"); }, namesTheKey);
}

TEST(IniFile, AKeyIsFoundInItsOwnCaseOnly) {
    EXPECT_EQ(IniFile::GetValueFromGroup(WithValue("v"), "Key"), "v");
    EXPECT_THROW(IniFile::GetValueFromGroup(WithValue("v"), "key"), osa::Exception);
}

TEST(IniFile, TryingAKeyCopiesItsValueOrLeavesTheTextAlone) {
    std::string value = "before";
    EXPECT_FALSE(IniFile::TryGetValueFromGroup({}, "Key", value));
    EXPECT_EQ(value, "before");
    EXPECT_TRUE(IniFile::TryGetValueFromGroup(WithValue(""), "Key", value));
    EXPECT_EQ(value, "");
}

TEST(IniFile, IntegersAreDecimalWithAnOptionalMinusAndLeadingZeros) {
    const std::pair<const char*, int32_t> table[] = {
        {"0", 0},
        {"7", 7},
        {"007", 7},
        {"-1", -1},
        {"-007", -7},
        {"-0", 0},
        {"2147483647", 2147483647},
        {"-2147483648", -2147483647 - 1},
        {"00000000000000000000000000000000002147483647", 2147483647},
        {"010", 10},
    };
    for (const auto& [text, value] : table) {
        EXPECT_EQ(IniFile::GetIntFromGroup(WithValue(text), "Key"), value) << text;
        EXPECT_EQ(IniFile::GetIntOrDefaultFromGroup(WithValue(text), "Key", 99), value) << text;
    }
}

TEST(IniFile, AnythingElseIsNoIntegerAndTheErrorNamesKeyAndValue) {
    const std::string notIntegers[] = {"",
                                       "+1",
                                       " 1",
                                       "1 ",
                                       "1\t",
                                       "--1",
                                       "-",
                                       "1.0",
                                       "1e3",
                                       "0x10",
                                       "1,000",
                                       "one",
                                       "- 1",
                                       "1-",
                                       "2147483648",
                                       "-2147483649",
                                       "99999999999999999999999999",
                                       "1%s",
                                       std::string("1\0", 2),
                                       "\xd9\xa1"};
    for (const std::string& text : notIntegers) {
        const auto namesBoth = FailsWith(AllOf(HasSubstr("Key"), HasSubstr(text.c_str())));
        EXPECT_THAT([&] { IniFile::GetIntFromGroup(WithValue(text), "Key"); }, namesBoth) << text;
        EXPECT_THAT([&] { IniFile::GetIntOrDefaultFromGroup(WithValue(text), "Key", 5); }, namesBoth) << text;
    }
}

TEST(IniFile, BoolsAreFourPairsOfWordsInAnyCase) {
    for (const char* text : {"true", "yes", "on", "1", "TRUE", "Yes", "oN", "tRuE"}) {
        EXPECT_TRUE(IniFile::GetBoolFromGroup(WithValue(text), "Key")) << text;
        EXPECT_TRUE(IniFile::GetBoolOrDefaultFromGroup(WithValue(text), "Key", false)) << text;
    }
    for (const char* text : {"false", "no", "off", "0", "FALSE", "No", "oFF"}) {
        EXPECT_FALSE(IniFile::GetBoolFromGroup(WithValue(text), "Key")) << text;
        EXPECT_FALSE(IniFile::GetBoolOrDefaultFromGroup(WithValue(text), "Key", true)) << text;
    }
}

TEST(IniFile, AnythingElseIsNoBoolAndTheErrorNamesKeyAndValue) {
    const std::string notBools[] = {"",      "2",       "00",   "01",    "-1",
                                    "t",     "y",       "n",    " on",   "on ",
                                    "truee", "enabled", "fals", "yesno", std::string("on\0x", 4)};
    for (const std::string& text : notBools) {
        const auto namesBoth = FailsWith(AllOf(HasSubstr("Key"), HasSubstr(text.c_str())));
        EXPECT_THAT([&] { IniFile::GetBoolFromGroup(WithValue(text), "Key"); }, namesBoth) << text;
        EXPECT_THAT([&] { IniFile::GetBoolOrDefaultFromGroup(WithValue(text), "Key", true); }, namesBoth) << text;
    }
}

TEST(IniFile, ADefaultIsForAnAbsentKeyOnly) {
    EXPECT_EQ(IniFile::GetIntOrDefaultFromGroup({}, "Key", -5), -5);
    EXPECT_TRUE(IniFile::GetBoolOrDefaultFromGroup({}, "Key", true));
    EXPECT_FALSE(IniFile::GetBoolOrDefaultFromGroup({}, "Key", false));
}

TEST(IniFile, TheTextFormHasEveryGroupInOrderAndEmptyOnesToo) {
    IniFile ini;
    ini.AddGroup("b")["k"] = "v=w ; x";
    ini.AddGroup("b")["a"] = "";
    ini.AddGroup("a#1/x");
    EXPECT_EQ(ini.SaveToString(), "[a#1/x]\n[b]\na=\nk=v=w ; x\n");
    EXPECT_EQ(IniFile().SaveToString(), "");
}

}  // namespace

}  // namespace kelto::core
