#include "kelto/settings/IniParser.h"
#include "tests/support/Matchers.h"

namespace kelto::settings {

namespace {

core::IniFile Parse(std::string_view text) {
    core::IniFile ini;
    IniParser::Parse(text, "test.ini", ini);
    return ini;
}

/** The value that a line "key=..." of a group gets. */
std::string ValueOf(const std::string& line) {
    return Parse("[g]\n" + line + "\n").GetValue("g", "key");
}

TEST(IniParser, GroupsHoldKeysAndValues) {
    const core::IniFile ini = Parse("[a]\nk1=v1\nk2=v2\n[b]\nk1=w1\n");
    EXPECT_THAT(ini.GetGroups(), ElementsAre(Key("a"), Key("b")));
    EXPECT_THAT(ini.FindGroup("a"), ElementsAre(Pair("k1", "v1"), Pair("k2", "v2")));
    EXPECT_THAT(ini.FindGroup("b"), ElementsAre(Pair("k1", "w1")));
}

TEST(IniParser, NothingButCommentsAndEmptyLinesIsNothing) {
    EXPECT_THAT(Parse("").GetGroups(), IsEmpty());
    EXPECT_THAT(Parse("\n\r\n  \t\n# [a]\n; k=v\n").GetGroups(), IsEmpty());
}

TEST(IniParser, AGroupNameHoldsAnythingButALineBreakAndABracketThatCloses) {
    for (const std::string name :
         {"Events/Source#1/Timer", "a b", " a ", "#", ";", "[", "a[b", "a=b", "", "\t", "\xc3\xa4", "*", "a\rb"}) {
        EXPECT_THAT(Parse("[" + name + "]\nk=v\n").GetGroups(), ElementsAre(Pair(name, ElementsAre(Pair("k", "v")))))
            << name;
    }
}

TEST(IniParser, BlanksAroundAHeaderDoNotCount) {
    EXPECT_THAT(Parse(" \t[g] \t\r\nk=v").GetGroups(), ElementsAre(Key("g")));
}

TEST(IniParser, AHeaderWithoutKeysMakesAnEmptyGroup) {
    EXPECT_THAT(Parse("[a]\n[b]").GetGroups(), ElementsAre(Pair("a", IsEmpty()), Pair("b", IsEmpty())));
}

TEST(IniParser, ARepeatedGroupContinuesAndARepeatedKeyOverwrites) {
    const core::IniFile ini = Parse("[a]\nx=1\ny=1\n[b]\n[a]\ny=2\nz=2\nz=3\n");
    EXPECT_THAT(ini.FindGroup("a"), ElementsAre(Pair("x", "1"), Pair("y", "2"), Pair("z", "3")));
}

TEST(IniParser, ALineWhoseFirstNonBlankIsHashOrSemicolonIsAComment) {
    const core::IniFile ini = Parse("# a\n ;b=c\n[g]\n\t# k=1\n;[h]\n#\n;\nk=v\n");
    EXPECT_THAT(ini.GetGroups(), ElementsAre(Pair("g", ElementsAre(Pair("k", "v")))));
}

TEST(IniParser, AValueKeepsAllThatIsInsideIt) {
    const std::pair<const char*, const char*> table[] = {
        {"key=a ; b", "a ; b"},
        {"key=a # b", "a # b"},
        {"key=;", ";"},
        {"key=#", "#"},
        {"key=a=b=c", "a=b=c"},
        {"key==", "="},
        {"key=a  b\tc", "a  b\tc"},
        {"key=[x]", "[x]"},
        {"key=\"quoted \"", "\"quoted \""},
        {"key=a\\nb\\", "a\\nb\\"},
        {"key=a\rb", "a\rb"},
        {"key=%Y%m", "%Y%m"},
        {"key=\xc3\xa4\xff", "\xc3\xa4\xff"},
        {"key=", ""},
        {"key= \t ", ""},
    };
    for (const auto& [line, value] : table) {
        EXPECT_EQ(ValueOf(line), value) << line;
    }
    EXPECT_EQ(ValueOf(std::string("key=a\0b", 7)), std::string("a\0b", 3));
}

TEST(IniParser, BlanksAroundKeyAndValueAndCarriageReturnsAtTheEndAreTrimmed) {
    for (const char* line : {"key=v", " key=v", "\tkey = v ", "key\t=\tv\t", "key=v\r", "key=v \r", "key=v\r\r",
                             "key=v\r ", " \t key \t = \t v \t \r"}) {
        EXPECT_EQ(ValueOf(line), "v") << line;
    }
    EXPECT_EQ(ValueOf("key=\r"), "");
}

TEST(IniParser, OtherWhiteSpaceIsNotTrimmed) {
    EXPECT_EQ(ValueOf("key=\v\f v\v"), "\v\f v\v");
    EXPECT_EQ(ValueOf("key=\rv"), "\rv");
}

TEST(IniParser, AKeyMayHoldBlanksAndDotsAndIsTakenByItsCase) {
    const core::IniFile ini = Parse("[g]\na key=1\nInterval.sec=2\ninterval.sec=3\nx#y;z=4\nk]=5\n");
    EXPECT_THAT(ini.FindGroup("g"), ElementsAre(Pair("Interval.sec", "2"), Pair("a key", "1"),
                                                Pair("interval.sec", "3"), Pair("k]", "5"), Pair("x#y;z", "4")));
}

TEST(IniParser, TheLastLineNeedsNoLineBreak) {
    EXPECT_THAT(Parse("[g]\nk=v").FindGroup("g"), ElementsAre(Pair("k", "v")));
    EXPECT_THAT(Parse("[g]").GetGroups(), ElementsAre(Key("g")));
}

TEST(IniParser, ValuesOfMoreThan64KiBAreWhole) {
    for (const size_t size : {size_t{65535}, size_t{65536}, size_t{1} << 20}) {
        const std::string value(size, 'x');
        EXPECT_EQ(ValueOf("key=" + value), value);
    }
    const std::string longName(100000, 'n');
    EXPECT_THAT(Parse("[" + longName + "]\n" + longName + "=v").FindGroup(longName), ElementsAre(Pair(longName, "v")));
}

TEST(IniParser, WhatIsThereAlreadyIsKeptUnlessOverwritten) {
    core::IniFile ini;
    ini.AddGroup("a")["x"] = "0";
    ini.AddGroup("a")["y"] = "0";
    ini.AddGroup("b");
    IniParser::Parse("[a]\ny=1\n[c]\n", "test.ini", ini);
    EXPECT_THAT(ini.FindGroup("a"), ElementsAre(Pair("x", "0"), Pair("y", "1")));
    EXPECT_THAT(ini.GetGroups(), ElementsAre(Key("a"), Key("b"), Key("c")));
}

TEST(IniParser, AMalformedLineIsAnErrorThatNamesFileAndLine) {
    const struct {
        const char* text;
        const char* place;
    } table[] = {
        {"nothing", "test.ini:1:"},
        {"k=v", "test.ini:1:"},
        {"# comment\n\nk=v\n[g]\n", "test.ini:3:"},
        {"[g]\nk=v\nnothing\n", "test.ini:3:"},
        {"[g]\r\nk=v\r\nnothing\r\n", "test.ini:3:"},
        {"[g]\n=v\n", "test.ini:2:"},
        {"[g]\n \t= v\n", "test.ini:2:"},
        {"[g]\n=\n", "test.ini:2:"},
        {"[g\n", "test.ini:1:"},
        {"[\n", "test.ini:1:"},
        {"[g]]\n", "test.ini:1:"},
        {"[g] # comment\n", "test.ini:1:"},
        {"[g]x\n", "test.ini:1:"},
        {"[g]x=y\n", "test.ini:1:"},
        {"[a]\n[g]x=y\n", "test.ini:2:"},
        {"[a]\n[g=y\n", "test.ini:2:"},
        {"]\n", "test.ini:1:"},
        {"\xef\xbb\xbf[g]\n", "test.ini:1:"},
        {"[g]\n\v\n", "test.ini:2:"},
    };
    for (const auto& [text, place] : table) {
        EXPECT_THAT([text = text] { Parse(text); }, FailsWith(StartsWith(place))) << text;
    }
}

TEST(IniParser, TheFirstMalformedLineIsNamed) {
    EXPECT_THAT([] { Parse("[g]\nfirst\nsecond\n"); }, FailsWith(StartsWith("test.ini:2:")));
}

TEST(IniParser, ALineNumberCountsTheLinesOfALongFile) {
    std::string text = "[g]\n";
    for (int line = 2; line < 70000; ++line) {
        text += "k=v\n";
    }
    EXPECT_THAT([&] { Parse(text + "bad"); }, FailsWith(StartsWith("test.ini:70000:")));
}

TEST(IniParser, AFileNameIsNeverAFormat) {
    core::IniFile ini;
    EXPECT_THAT([&] { IniParser::Parse("bad", "%s%n.ini", ini); }, FailsWith(StartsWith("%s%n.ini:1:")));
}

TEST(IniParser, WhatIsSavedReadsBackTheSame) {
    const std::string texts[] = {
        "",
        "[]\n",
        "[Events/Source#1/Timer]\nInterval.sec = 10\n[empty]\n[b]\nk=\nl= a ; b # c = d \n",
        "[ g ]\r\nk = v\r\r\n k2 = \rv \r \r\n",
        "[a\r]\nk\r=\rv\n",
        std::string("[\0]\n\0=\0\n", 8),
    };
    for (const std::string& text : texts) {
        const core::IniFile ini = Parse(text);
        const core::IniFile again = Parse(ini.SaveToString());
        EXPECT_EQ(again.GetGroups(), ini.GetGroups()) << text;
        EXPECT_EQ(again.SaveToString(), ini.SaveToString()) << text;
    }
}

}  // namespace

}  // namespace kelto::settings
