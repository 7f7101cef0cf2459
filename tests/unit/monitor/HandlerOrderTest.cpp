#include "env/HandlerRegistry.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace kelto::halvek {

namespace {

using ::testing::ElementsAre;

// Built twice: LINKED says in which order the handlers were linked.

TEST(LINKED, RegisterInTheOneOrder) {
    std::vector<std::string> names;
    for (const HandlerRegistration* const registration : HandlerRegistry::Instance().GetRegistrations()) {
        names.emplace_back(registration->name);
    }
    EXPECT_THAT(names, ElementsAre("Relay", "Email", "Extern", "Preset", "Ftp", "Folder", "Tour"));
}

TEST(LINKED, AreListedByKindInThatOrder) {
    std::list<std::string> ordinary;
    std::list<std::string> alwaysOn;
    HandlerRegistry::Instance().GetNamesOfKind(0, ordinary);
    HandlerRegistry::Instance().GetNamesOfKind(1, alwaysOn);
    EXPECT_THAT(ordinary, ElementsAre("Relay", "Email", "Preset", "Ftp", "Folder", "Tour"));
    EXPECT_THAT(alwaysOn, ElementsAre("Extern"));
}

}  // namespace

}  // namespace kelto::halvek
