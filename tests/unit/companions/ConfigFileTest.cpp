#include "companions/common/ConfigFile.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <string>
#include <system_error>

namespace kelto::companion {

namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

ConfigFile Of(std::string_view text) {
    return {"my.conf", text};
}

TEST(ConfigFile, GroupsKeysAndValuesHaveTheirPlaces) {
    const ConfigFile file = Of("; about\n[Rule door]\nWhen=Alarm\n  Post = Door Opened \n");
    ASSERT_THAT(file.Groups(), SizeIs(1));
    const ConfigGroup& group = file.Groups()[0];
    EXPECT_EQ(group.name, "Rule door");
    EXPECT_EQ(file.At(group.place), "my.conf:2:1");
    ASSERT_THAT(group.entries, SizeIs(2));
    EXPECT_EQ(group.entries[1].key, "Post");
    EXPECT_EQ(group.entries[1].value, "Door Opened");
    EXPECT_EQ(file.At(group.entries[1].keyPlace), "my.conf:4:3");
    EXPECT_EQ(file.At(group.entries[1].valuePlace), "my.conf:4:10");
    EXPECT_THAT(file.Faults(), IsEmpty());
}

TEST(ConfigFile, AColumnCountsCharactersAndNotBytes) {
    const ConfigFile file = Of("[G]\nTür=ö\nx\xff=y\n");
    EXPECT_EQ(file.Groups()[0].entries[0].valuePlace, (ConfigPlace{2, 5}));
    EXPECT_EQ(file.Groups()[0].entries[1].valuePlace, (ConfigPlace{3, 4}));
}

TEST(ConfigFile, AnEmptyValueStandsBehindTheEqualsSign) {
    const ConfigFile file = Of("[G]\nkey=   \nother=");
    EXPECT_EQ(file.Groups()[0].entries[0].value, "");
    EXPECT_EQ(file.Groups()[0].entries[0].valuePlace, (ConfigPlace{2, 5}));
    EXPECT_EQ(file.Groups()[0].entries[1].valuePlace, (ConfigPlace{3, 7}));
}

TEST(ConfigFile, ACommentBeginsALineOrFollowsABlank) {
    const ConfigFile file = Of("# one\n  ; two\n[G] ; three\na=1   ; four; five\nb=;six\nc=x;y#z # w\nd= ; e=2\n");
    ASSERT_THAT(file.Groups(), SizeIs(1));
    const auto& entries = file.Groups()[0].entries;
    ASSERT_THAT(entries, SizeIs(4));
    EXPECT_EQ(entries[0].value, "1");
    EXPECT_EQ(entries[1].value, ";six");
    EXPECT_EQ(entries[2].value, "x;y#z # w");
    EXPECT_EQ(entries[3].value, "");
    EXPECT_THAT(file.Faults(), IsEmpty());
}

TEST(ConfigFile, ARepeatedHeaderIsAGroupOfItsOwnAndARepeatedKeyIsKept) {
    const ConfigFile file = Of("[G]\na=1\na=2\n[H]\n[G]\nb=3\n");
    ASSERT_THAT(file.Groups(), SizeIs(3));
    EXPECT_THAT(file.Groups()[0].entries, SizeIs(2));
    EXPECT_EQ(file.Groups()[0].Find("a")->value, "2");
    EXPECT_EQ(file.Groups()[0].Find("b"), nullptr);
    EXPECT_THAT(file.Groups()[1].entries, IsEmpty());
}

TEST(ConfigFile, WhatIsNoLineOfItsKindIsAFaultAndTheRestIsReadAllTheSame) {
    const ConfigFile file = Of("early=1\n[G\n[G] x\n[G]\n  word\n=1\na=2\n");
    ASSERT_THAT(file.Faults(), SizeIs(5));
    EXPECT_EQ(file.At(file.Faults()[0].place), "my.conf:1:1");
    EXPECT_EQ(file.At(file.Faults()[1].place), "my.conf:2:1");
    EXPECT_EQ(file.At(file.Faults()[2].place), "my.conf:3:1");
    EXPECT_EQ(file.At(file.Faults()[3].place), "my.conf:5:3");
    EXPECT_EQ(file.At(file.Faults()[4].place), "my.conf:6:1");
    ASSERT_THAT(file.Groups(), SizeIs(1));
    EXPECT_EQ(file.Groups()[0].Find("a")->value, "2");
}

TEST(ConfigFile, LinesMayEndWithCarriageReturns) {
    const ConfigFile file = Of("[G]\r\na=1\r\n");
    EXPECT_EQ(file.Groups()[0].Find("a")->value, "1");
}

TEST(ConfigFile, AFileIsReadWhole) {
    const test::TempDir folder;
    const std::string path = folder.Write("x.conf", "[G]\nlong=" + std::string(100000, 'v') + "\n");
    const ConfigFile file = ConfigFile::Load(path);
    EXPECT_EQ(file.Path(), path);
    EXPECT_THAT(file.Groups()[0].Find("long")->value, SizeIs(100000));
}

TEST(ConfigFile, WhatIsNoFileOfAConfigurationsSizeIsAnError) {
    const test::TempDir folder;
    ASSERT_EQ(mkfifo(folder.PathOf("pipe").c_str(), 0600), 0);
    folder.Write("large", std::string(ConfigFile::largestFile + 1, '\n'));
    EXPECT_THROW(ConfigFile::Load(folder.PathOf("missing")), std::system_error);
    EXPECT_THROW(ConfigFile::Load(folder.PathOf("pipe")), std::system_error);
    EXPECT_THROW(ConfigFile::Load(folder.PathOf("large")), std::system_error);
    EXPECT_THROW(ConfigFile::Load(folder.GetPath()), std::system_error);
}

}  // namespace

}  // namespace kelto::companion
