#include "env/HandlerRegistry.h"
#include "env/SettingsKeys.h"
#include "handler/HandlerKeys.h"
#include "source/SourceFactory.h"
#include "tests/support/Matchers.h"

#include <list>
#include <string>
#include <vector>

namespace kelto::halvek {

namespace {

using ::testing::UnorderedElementsAreArray;

constexpr SettingsKeys keys{TextKey{.name = "Word"}, IntegerKey{.name = "Number", .absent = 7},
                            BooleanKey{.name = "Answer", .absent = true}};

std::vector<std::string> NamesOf(SettingsKeyList list) {
    std::vector<std::string> names;
    for (const SettingsKey& key : list) {
        names.emplace_back(NameOf(key));
    }
    return names;
}

// Whether a table has a key is asked while compiling; that it refuses another name or kind no test can show.
static_assert(keys.Integer("Number").absent == 7);
static_assert(keys.Boolean("Answer").absent == true);
static_assert(!keys.Text("Word").required);

TEST(SettingsKeys, AreListedInTheOrderOfTheTable) {
    EXPECT_THAT(NamesOf(keys.List()), ElementsAre("Word", "Number", "Answer"));
}

TEST(SettingsKeys, OfAKeyGivenOnlyItsNameDemandNothing) {
    const IntegerKey& number = keys.Integer("Number");
    EXPECT_EQ(number.lowest, INT32_MIN);
    EXPECT_EQ(number.highest, INT32_MAX);
    EXPECT_FALSE(number.defaultIfUnreadable || number.defaultIfOutOfRange);
    EXPECT_EQ(keys.Text("Word").absent, nullptr);
}

TEST(SettingsKeys, AreThereForEveryTypeOfHandlerThatRegisters) {
    std::list<std::string> registered;
    HandlerRegistry::Instance().GetNamesOfKind(0, registered);
    HandlerRegistry::Instance().GetNamesOfKind(1, registered);
    std::vector<std::string> listed;
    for (const HandlerKeys& handler : KeysOfHandlers()) {
        listed.emplace_back(handler.type);
    }
    EXPECT_THAT(listed, UnorderedElementsAreArray(registered));
}

TEST(SettingsKeys, OfAHandlerNeverNameAFiltersKey) {
    const std::vector<std::string> common = NamesOf(KeysOfEveryHandler());
    for (const HandlerKeys& handler : KeysOfHandlers()) {
        for (const std::string& name : NamesOf(handler.keys)) {
            EXPECT_THAT(common, Not(Contains(name))) << handler.type;
        }
    }
}

TEST(SettingsKeys, AreListedBesideTheTypesOfSources) {
    std::vector<std::string> listed;
    for (const SourceType& type : SourceTypes()) {
        listed.emplace_back(type.name);
    }
    EXPECT_THAT(listed, ElementsAre("Timer", "Alarm", "MsgBus", "Analytics", "Park", "System", "server"));
    EXPECT_THAT(NamesOf(SourceTypes()[1].keys), ElementsAre("Index", "BankName"));
    EXPECT_THAT(NamesOf(SourceTypes()[2].keys), IsEmpty());
}

}  // namespace

}  // namespace kelto::halvek
