#pragma once

#include "handler/FolderEventHandler.h"
#include "kelto/core/IniFile.h"
#include "tests/fakes/FakeRecordingInformation.h"
#include "tests/support/BaitedFolder.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MemoryMount.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace kelto::halvek::handler {

/**
 * A snapshot of 5000 bytes, settings that name it, and a small memory file system as the folder that it goes to: files
 * take multiples of 4096 bytes there, folders take none. The current folder is full of bait.
 */
class FolderFixture : public ::testing::Test {
protected:
    static constexpr const char* noLimit = "Debug halvek: Zero limit size, so limit size functionality skipped";
    static constexpr const char* succeeded = "Debug halvek: Copy succeeded";
    static constexpr const char* retried = "Debug halvek: Copy failed, trying shorter filename";
    static constexpr const char* reallyFailed = "Debug halvek: Copy really failed now";

    FolderFixture();

    /** Nothing that was put there is gone from the current folder, nothing is new, and no file half-made is left. */
    void TearDown() override;

    /** Has the settings name another snapshot. */
    void NameSnapshot(const std::string& path) const;

    /** Configures the handler for the target folder and "new.jpg", with these keys instead or beyond; the log begins
     * anew. */
    void Configure(const core::IniFile::Group& keys = {});

    /** One action; the log begins anew. */
    void Act();

    /** The records so far less what the commands say in between. */
    std::vector<std::string> Lines() const;

    /** The names in the target folder, hidden ones too, in byte order; those of a folder there have its name before. */
    std::vector<std::string> Names() const;

    /** Puts a file into the target folder, last modified at that second. */
    void Put(const std::string& name, size_t size, time_t modified) const;

    /** Makes a file of that size outside the target folder that takes no room, and returns its path. */
    std::string MakeSparse(const std::string& name, int64_t size) const;

    std::string InTarget(const std::string& name) const { return target + "/" + name; }

    /** The record of a file that is about to be written. */
    std::string Writing(const std::string& name) const {
        return "Information halvek: Writing file " + source + " to " + InTarget(name);
    }

    const test::TempDir folder;
    const std::string target;
    test::MemoryMount card;
    const std::string picture = std::string(4999, 'p') + "q";
    const std::string source = folder.Write("snapshot.jpg", picture);
    const test::EnvironmentVariable store{"KELTO_SETTINGS", folder.PathOf("settings.ini")};
    test::BaitedFolder bait;
    test::LogCapture log;
    test::FakeRecordingInformation recording;
    FolderEventHandler handler;
};

}  // namespace kelto::halvek::handler
