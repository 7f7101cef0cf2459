#include "kelto/settings/SettingsStore.h"
#include "tests/fakes/EnvironmentVariable.h"
#include "tests/fakes/FailingAllocation.h"
#include "tests/fakes/TempDir.h"

#include <gtest/gtest.h>

#include <new>

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

}  // namespace

}  // namespace kelto::settings
