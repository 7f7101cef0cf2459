#include "kelto/core/IniFile.h"
#include "kelto/settings/KeltoSettingsClient.h"
#include "kelto/settings/SettingsStore.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <new>
#include <string>

namespace kelto::settings {

namespace {

/** What Holds says when the allocation after so many good ones fails, or that it throws. */
bool HoldsOrThrows(const std::vector<SettingsStore::File>& files, size_t goodOnes) {
    const test::FailingAllocation failing(goodOnes);
    try {
        return SettingsStore::Holds(files);
    } catch (const std::bad_alloc&) {
        return true;
    }
}

TEST(SettingsStoreMemory, WithoutMemoryTheComparisonThrowsAndNeverSaysThatTheStoreIsAnother) {
    const test::TempDir folder;
    folder.Write("a-name-that-is-too-long-to-need-no-memory.ini", "[a]\nx=1\n");
    folder.Write("another-name-that-is-too-long-to-need-no-memory.ini", "[b]\nx=1\n");
    const test::EnvironmentVariable store("KELTO_SETTINGS", folder.GetPath());
    const std::vector<SettingsStore::File> files = SettingsStore::Read();
    size_t failures = 0;
    do {
        EXPECT_TRUE(HoldsOrThrows(files, failures)) << failures;
        ++failures;
    } while (test::FailingAllocation::HasFailed());
    EXPECT_GT(failures, 3U);
}

TEST(SettingsStoreMemory, ALookUpInAStoreThatHasNotChangedParsesNothing) {
    constexpr size_t groups = 10000;
    std::string text = "[wanted]\nx=1\n";
    for (size_t number = 0; number < groups; ++number) {
        text += "[a group whose name needs memory " + std::to_string(number) + "]\nx=1\n";
    }
    const test::TempDir folder;
    const test::EnvironmentVariable store("KELTO_SETTINGS", folder.Write("settings.ini", text));
    KeltoSettingsClient client(OperationMode::LookUp);
    core::IniFile ini;
    client.GetSettings({"wanted"}, ini);
    const test::FailingAllocation failing(groups / 10);
    client.GetSettings({"wanted"}, ini);
    EXPECT_FALSE(test::FailingAllocation::HasFailed());
}

}  // namespace

}  // namespace kelto::settings
