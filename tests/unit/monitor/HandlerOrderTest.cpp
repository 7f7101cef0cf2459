#include "monitor/HandlerRegistry.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace kelto::halvek {

// The list as a whole, whatever the kinds, shows in no operation: naming a private member is allowed in an explicit
// instantiation.
auto ListOf(const HandlerRegistry& registry);

template <auto member>
struct ListReader {
    friend auto ListOf(const HandlerRegistry& registry) { return registry.*member; }
};

template struct ListReader<&HandlerRegistry::registrations>;

namespace {

using ::testing::ElementsAre;

// Built twice: LINKED says in which order the handlers were linked.

TEST(LINKED, RegisterInTheOneOrder) {
    std::vector<std::string> names;
    for (const HandlerRegistration* const registration : ListOf(HandlerRegistry::Instance())) {
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
