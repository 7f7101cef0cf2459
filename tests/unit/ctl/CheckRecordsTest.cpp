#include "companions/ctl/Checks.h"
#include "companions/ctl/Examination.h"

#include <gmock/gmock.h>

#include <string>

namespace kelto::halvek::ctl {

namespace {

class CheckRecordsTest : public ::testing::Test {
protected:
    CheckRecordsTest() { examination.model.emplace(); }

    void Report(core::LogLevel level, const std::string& text) {
        examination.model->records.push_back({level, "halvek", text, "Events/Handler#1"});
    }

    const Store store{.path = "a.ini", .files = {{"a.ini", "[Events/Handler#1]\nType=Relay\n"}}};
    Examination examination{store};
};

TEST_F(CheckRecordsTest, ARecordThatNobodyForetoldIsAFindingOfItsLevel) {
    Report(core::LogLevel::Error, "Something new");
    CheckRecords(examination);
    ASSERT_EQ(examination.Findings().size(), 1U);
    const Finding& finding = examination.Findings().front();
    EXPECT_STREQ(finding.entry->id, "HK1099");
    EXPECT_EQ(finding.severity, Severity::Error);
    EXPECT_EQ(finding.foretells, "Something new");
    EXPECT_EQ(finding.position, (Position{"a.ini", 1, 1}));
}

TEST_F(CheckRecordsTest, WhatWasForetoldIsNoFurtherFinding) {
    Report(core::LogLevel::Warning, "CreateHandlerByName failed for Relais");
    examination.AtGroup("HK3016", "Events/Handler#1", "").foretells = "CreateHandlerByName failed for Relais";
    CheckRecords(examination);
    ASSERT_EQ(examination.Findings().size(), 1U);
    EXPECT_EQ(examination.Findings().front().foretells, "CreateHandlerByName failed for Relais");
}

TEST_F(CheckRecordsTest, WhatTheDaemonDoesNotReportIsNotForetold) {
    examination.AtGroup("HK3016", "Events/Handler#1", "").foretells = "CreateHandlerByName failed for Relais";
    CheckRecords(examination);
    EXPECT_EQ(examination.Findings().front().foretells, std::nullopt);
}

}  // namespace

}  // namespace kelto::halvek::ctl
