#include "companions/outbox/MemoryFile.h"
#include "companions/outbox/SpoolFolder.h"
#include "tests/support/Descriptors.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace kelto::halvek::outbox {
namespace {

class SpoolFolderTest : public testing::Test {
protected:
    SpoolFolderTest() { folder.Open(); }
    ~SpoolFolderTest() override { std::filesystem::remove_all(path); }

    SpoolFolder::File Write(uint64_t id, const std::string& payload) {
        ItemHeader header;
        header.host = "host";
        header.password = "word";
        const SpoolFolder::File file = folder.Write(id, header, MemoryFile::Of(payload).Get(), 1'000'000);
        folder.Publish(id);
        return file;
    }

    std::string Name(const char* part, uint64_t id) const { return path + part + SpoolFolder::NameOf(id); }

    static std::string Content(const std::string& name) {
        std::ostringstream text;
        text << std::ifstream(name).rdbuf();
        return text.str();
    }

    std::string path = [] {
        std::string name = "/tmp/spool-XXXXXX";
        return std::string(mkdtemp(name.data()));
    }();
    SpoolFolder folder{path, SpoolFolder::Medium::Flash};
};

TEST_F(SpoolFolderTest, WhatWasWrittenIsFoundAgain) {
    const std::string payload("a\nend 1 00000000\n\0b", 19);
    const SpoolFolder::File written = Write(7, payload);
    const SpoolFolder::Found found = folder.Open();
    ASSERT_EQ(found.files.size(), 1U);
    EXPECT_EQ(found.files[0].id, 7U);
    EXPECT_EQ(found.files[0].size, written.size);
    EXPECT_EQ(found.files[0].payloadOffset, written.payloadOffset);
    EXPECT_EQ(found.files[0].payloadSize, payload.size());
    EXPECT_EQ(Content(Name("/q/", 7)).substr(static_cast<size_t>(written.payloadOffset), payload.size()), payload);
    EXPECT_EQ(folder.HighestId(), 7U);
}

TEST_F(SpoolFolderTest, WhatWasNotPublishedIsGoneAtTheNextStart) {
    folder.Write(7, {}, MemoryFile::Of("picture").Get(), 100);
    EXPECT_TRUE(std::filesystem::exists(Name("/tmp/", 7)));
    EXPECT_TRUE(folder.Open().files.empty());
    EXPECT_FALSE(std::filesystem::exists(Name("/tmp/", 7)));
}

TEST_F(SpoolFolderTest, WhatIsDiscardedIsGoneAtOnce) {
    folder.Write(7, {}, MemoryFile::Of("picture").Get(), 100);
    folder.Discard(7);
    EXPECT_FALSE(std::filesystem::exists(Name("/tmp/", 7)));
}

TEST_F(SpoolFolderTest, WhatCannotBeMadeToLastIsGone) {
    folder.Write(7, {}, MemoryFile::Of("picture").Get(), 100);
    {
        const test::FewDescriptorsLeft none(0);
        EXPECT_THROW(folder.Publish(7), std::system_error);
    }
    EXPECT_TRUE(folder.Open().files.empty());
}

TEST_F(SpoolFolderTest, ANoteIsReplacedAndGoesWithItsItem) {
    Write(7, "picture");
    folder.WriteNote(7, "first");
    folder.WriteNote(7, "second");
    folder.Open();
    EXPECT_EQ(folder.ReadNote(7), "second");
    folder.Remove(7);
    EXPECT_EQ(folder.ReadNote(7), "");
}

TEST_F(SpoolFolderTest, ANoteOfNoItemIsRemovedAtTheStart) {
    folder.WriteNote(7, "text");
    folder.Open();
    EXPECT_EQ(folder.ReadNote(7), "");
}

TEST_F(SpoolFolderTest, AFileThatIsCutAnywhereIsSetAside) {
    const std::string whole = Content(Name("/q/", Write(1, "a picture").id));
    for (size_t length = 0; length < whole.size(); ++length) {
        std::ofstream(Name("/q/", 1)) << whole.substr(0, length);
        EXPECT_THAT(folder.Open().damaged, testing::ElementsAre(SpoolFolder::NameOf(1))) << length;
    }
    EXPECT_THAT(folder.Open().damaged, testing::IsEmpty());
}

TEST_F(SpoolFolderTest, OnlyTheNewestFiveOfTheDamagedAreKept) {
    for (uint64_t id = 1; id <= 8; ++id) {
        std::ofstream(Name("/q/", id)) << "damaged";
    }
    EXPECT_EQ(folder.Open().damaged.size(), 8U);
    for (uint64_t id = 1; id <= 8; ++id) {
        EXPECT_EQ(access(Name("/bad/", id).c_str(), F_OK) == 0, id > 3) << id;
    }
    EXPECT_EQ(folder.HighestId(), 8U);
}

TEST_F(SpoolFolderTest, WhatWasJustBeingWrittenIsGone) {
    std::ofstream(Name("/tmp/", 1)) << "half";
    EXPECT_THAT(folder.Open().files, testing::IsEmpty());
    EXPECT_NE(access(Name("/tmp/", 1).c_str(), F_OK), 0);
}

TEST_F(SpoolFolderTest, APayloadThatIsTooLongLeavesNothing) {
    EXPECT_THROW(folder.Write(1, {}, MemoryFile::Of("four").Get(), 3), std::length_error);
    EXPECT_NE(access(Name("/tmp/", 1).c_str(), F_OK), 0);
    EXPECT_NE(access(Name("/q/", 1).c_str(), F_OK), 0);
}

TEST_F(SpoolFolderTest, ACopyIsTheSameFileAndTheFirstOneStays) {
    Write(1, "a picture");
    SpoolFolder other(path + "/other", SpoolFolder::Medium::Ram);
    other.Open();
    other.Copy(1, folder);
    EXPECT_EQ(Content(path + "/other/q/" + SpoolFolder::NameOf(1)), Content(Name("/q/", 1)));
    EXPECT_EQ(other.Open().files.size(), 1U);
}

TEST_F(SpoolFolderTest, AHeaderOfWhatHasFailedHasNoPasswordAndTheReason) {
    const SpoolFolder::File file = Write(1, "a picture");
    folder.KeepFailed(1, file.header, "no such folder");
    const std::string text = Content(Name("/failed/", 1));
    EXPECT_THAT(text, testing::HasSubstr("host=host\n"));
    EXPECT_THAT(text, testing::HasSubstr("reason=no such folder\n"));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("word\n")));
}

TEST_F(SpoolFolderTest, NamesAreSixteenDigitsAndNothingElseIsOne) {
    EXPECT_EQ(SpoolFolder::NameOf(0xabc), "0000000000000abc");
    EXPECT_EQ(SpoolFolder::IdOf("0000000000000abc"), 0xabcU);
    for (const char* name : {"", "abc", "0000000000000ABC", "0000000000000abg", "00000000000000abc", "counts"}) {
        EXPECT_FALSE(SpoolFolder::IdOf(name)) << name;
    }
}

}  // namespace
}  // namespace kelto::halvek::outbox
