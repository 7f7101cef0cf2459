#include "companions/mqtt/CameraSettings.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>

#include <string>

namespace kelto::halvek::mqtt {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(CameraSettingsTest, SourcesTellTypesAndAlarms) {
    const test::TempDir folder;
    folder.Write("10.ini",
                 "[Events/Source#1]\nType=Timer\n[Events/Source#2]\nType=Alarm\n"
                 "[Events/Source#2/Alarm]\nBankName=Local\nIndex=3\n[Events/Source#a]\nType=Analytics\n"
                 "[Events/Source#3]\nType=Alarm\n[Events/Source#3/Alarm]\nIndex=4\n"
                 "[Events/Handler#1]\nType=Relay\n[Events/Source#5]\nOther=x\n");
    folder.Write("20.ini", "[Events/Source#1]\nType=Doorbell\n");
    folder.Write("30.conf", "[Events/Source#9]\nType=Unread\n");
    const CameraFacts facts = CameraSettings::Read(folder.GetPath());
    EXPECT_THAT(facts.types, ElementsAre("Alarm", "AnalyticsAlert", "Doorbell"));
    EXPECT_THAT(facts.alarms, ElementsAre(AlarmName("Local", "3")));
    EXPECT_THAT(CameraSettings::Read(folder.PathOf("20.ini")).types, ElementsAre("Doorbell"));
}

TEST(CameraSettingsTest, ThePictureIsWhereTheDaemonLooksForIt) {
    const test::TempDir folder;
    folder.Write("10.ini", "[Video/Quickview]\nSnapshotPath=/run/camera/now.jpg\n");
    EXPECT_EQ(CameraSettings::Read(folder.GetPath()).picture, "/run/camera/now.jpg");
    folder.Write("20.ini", "[Video/Quickview]\nSnapshotPath=\n");
    EXPECT_EQ(CameraSettings::Read(folder.GetPath()).picture, "/tmp/snapshot/img2.jpg");
}

TEST(CameraSettingsTest, WhatCannotBeReadIsEmpty) {
    EXPECT_THAT(CameraSettings::Read("/nowhere").types, IsEmpty());
    EXPECT_EQ(CameraSettings::Read("/nowhere").picture, "/tmp/snapshot/img2.jpg");
}

}  // namespace

}  // namespace kelto::halvek::mqtt
