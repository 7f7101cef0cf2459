#include "env/SettingsReader.h"
#include "tests/support/Matchers.h"

#include <string>

namespace kelto::halvek {

namespace {

using Group = core::IniFile::Group;

constexpr SettingsKeys known{
    TextKey{.name = "Word"},
    TextKey{.name = "Path", .absent = "/there"},
    IntegerKey{.name = "Strict", .absent = 3, .lowest = 1, .highest = 5},
    IntegerKey{.name = "Lenient", .absent = 10, .lowest = 1, .defaultIfUnreadable = true},
    IntegerKey{.name = "Bound", .absent = 3, .lowest = 1, .highest = 5, .defaultIfOutOfRange = true},
    BooleanKey{.name = "Answer", .absent = true},
    BooleanKey{.name = "Needed"},
};

TEST(SettingsReader, SaysWhetherAKeyIsThereEvenIfItsValueIsEmpty) {
    const Group group{{"Word", ""}};
    EXPECT_TRUE(SettingsReader(group).Has("Word"));
    EXPECT_FALSE(SettingsReader(group).Has("word"));
}

TEST(SettingsReader, LeavesATextUntouchedThatIsAbsentAndHasNoDefault) {
    std::string text = "before";
    EXPECT_FALSE(SettingsReader(Group{}).TryRead(known.Text("Word"), text));
    EXPECT_EQ(text, "before");
}

TEST(SettingsReader, TakesAnEmptyTextForOneThatIsThere) {
    const Group group{{"Word", ""}, {"Path", ""}};
    std::string text = "before";
    EXPECT_TRUE(SettingsReader(group).TryRead(known.Text("Word"), text));
    EXPECT_EQ(text, "");
    text = "before";
    EXPECT_TRUE(SettingsReader(group).TryRead(known.Text("Path"), text));
    EXPECT_EQ(text, "");
}

TEST(SettingsReader, GivesTheDefaultOfATextThatIsAbsent) {
    std::string text = "before";
    EXPECT_FALSE(SettingsReader(Group{}).TryRead(known.Text("Path"), text));
    EXPECT_EQ(text, "/there");
}

TEST(SettingsReader, GivesTheDefaultOfANumberThatIsAbsent) {
    EXPECT_EQ(SettingsReader(Group{}).Read(known.Integer("Strict")), 3);
    int32_t number = 99;
    EXPECT_FALSE(SettingsReader(Group{}).TryRead(known.Integer("Lenient"), number));
    EXPECT_EQ(number, 10);
}

TEST(SettingsReader, RefusesANumberThatIsNone) {
    const Group group{{"Strict", "3x"}};
    EXPECT_THAT([&] { SettingsReader(group).Read(known.Integer("Strict")); },
                FailsWith("The value of key Strict is not an integer: 3x"));
}

TEST(SettingsReader, GivesTheDefaultOfANumberThatIsNoneIfItsKeyWantsThat) {
    const Group group{{"Lenient", "often"}};
    int32_t number = 99;
    EXPECT_FALSE(SettingsReader(group).TryRead(known.Integer("Lenient"), number));
    EXPECT_EQ(number, 10);
}

TEST(SettingsReader, TakesANumberOutOfRangeAsItIs) {
    const Group group{{"Strict", "6"}, {"Lenient", "-2147483648"}};
    EXPECT_EQ(SettingsReader(group).Read(known.Integer("Strict")), 6);
    int32_t number = 99;
    EXPECT_TRUE(SettingsReader(group).TryRead(known.Integer("Lenient"), number));
    EXPECT_EQ(number, INT32_MIN);
}

TEST(SettingsReader, GivesTheDefaultOfANumberOutOfRangeIfItsKeyWantsThat) {
    for (const auto& [text, number] :
         {std::pair{"0", 3}, std::pair{"1", 1}, std::pair{"5", 5}, std::pair{"6", 3}, std::pair{"-1", 3}}) {
        const Group group{{"Bound", text}};
        EXPECT_EQ(SettingsReader(group).Read(known.Integer("Bound")), number) << text;
    }
}

TEST(SettingsReader, GivesTheDefaultOfABooleanThatIsAbsentOnly) {
    EXPECT_TRUE(SettingsReader(Group{}).Read(known.Boolean("Answer")));
    EXPECT_FALSE(SettingsReader(Group{{"Answer", "off"}}).Read(known.Boolean("Answer")));
    const Group group{{"Answer", "perhaps"}};
    EXPECT_THAT([&] { SettingsReader(group).Read(known.Boolean("Answer")); },
                FailsWith("The value of key Answer is neither true nor false: perhaps"));
}

TEST(SettingsReader, RefusesToGoOnWithoutABooleanThatIsRequired) {
    EXPECT_THAT([] { SettingsReader(Group{}).Read(known.Boolean("Needed")); }, FailsWith("There is no key Needed"));
}

TEST(SettingsReader, NamesTheGroupOfARequiredTextThatIsAbsent) {
    core::IniFile ini;
    EXPECT_THAT([&] { SettingsReader::Read(ini, "Group", known.Text("Word")); },
                FailsWith("There is no settings group Group"));
    ini.AddGroup("Group");
    EXPECT_THAT([&] { SettingsReader::Read(ini, "Group", known.Text("Word")); },
                FailsWith("There is no key Word in settings group Group"));
    ini.AddGroup("Group")["Word"] = "said";
    EXPECT_EQ(SettingsReader::Read(ini, "Group", known.Text("Word")), "said");
}

}  // namespace

}  // namespace kelto::halvek
