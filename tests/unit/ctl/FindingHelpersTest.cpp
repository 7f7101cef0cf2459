#include "companions/ctl/Catalogue.h"
#include "companions/ctl/Nearest.h"
#include "companions/ctl/Secret.h"
#include "companions/ctl/Sha256.h"
#include "companions/ctl/ValueForm.h"

#include <gmock/gmock.h>

#include <set>
#include <string>

namespace kelto::halvek::ctl {

namespace {

using ::testing::Optional;

TEST(Catalogue, EachIdHasAThousandWithASubject) {
    std::set<std::string> titles;
    for (const CatalogueEntry& entry : Catalogue::Entries()) {
        EXPECT_THAT(entry.id, ::testing::MatchesRegex("HK[1-7][0-9][0-9][0-9]"));
        EXPECT_TRUE(titles.insert(entry.title).second) << entry.title;
        EXPECT_EQ(Catalogue::Find(entry.id), &entry);
    }
    EXPECT_EQ(Catalogue::Find("HK0000"), nullptr);
}

TEST(Nearest, ALetterMoreOrLessOrSwappedIsOneStep) {
    EXPECT_EQ(Nearest::Distance("Timer", "Timer"), 0U);
    EXPECT_EQ(Nearest::Distance("Timer", "tIMER"), 0U);
    EXPECT_EQ(Nearest::Distance("Tmier", "Timer"), 1U);
    EXPECT_EQ(Nearest::Distance("Timr", "Timer"), 1U);
    EXPECT_EQ(Nearest::Distance("Timmer", "Timer"), 1U);
    EXPECT_EQ(Nearest::Distance("", "abc"), 3U);
}

TEST(Nearest, WhatIsFarOffIsNotMeant) {
    EXPECT_THAT(Nearest::Find("Realy", {"Relay", "Tour"}), Optional(std::string("Relay")));
    EXPECT_EQ(Nearest::Find("Webhook", {"Relay", "Tour"}), std::nullopt);
    EXPECT_EQ(Nearest::Find("Relay", {"Relay", "Rely"}), std::nullopt);
}

TEST(ValueForm, NumbersAreTakenOutOfUnitsQuotesAndComments) {
    EXPECT_THAT(ValueForm::Number("60s", "s"), Optional(std::string("60")));
    EXPECT_THAT(ValueForm::Number("5 min", "s"), Optional(std::string("300")));
    EXPECT_THAT(ValueForm::Number("0.5s", "ms"), Optional(std::string("500")));
    EXPECT_THAT(ValueForm::Number("\"60\"", "s"), Optional(std::string("60")));
    EXPECT_THAT(ValueForm::Number("60 ; a minute", "s"), Optional(std::string("60")));
    EXPECT_THAT(ValueForm::Number("+3", ""), Optional(std::string("3")));
    for (const char* value : {"abc", "", "1.5s", "60 apples", "99999999999"}) {
        EXPECT_EQ(ValueForm::Number(value, "s"), std::nullopt) << value;
    }
}

TEST(ValueForm, SizesBecomeWhatTheDaemonReads) {
    EXPECT_THAT(ValueForm::Size("10MB"), Optional(std::string("10M")));
    EXPECT_THAT(ValueForm::Size("10 MiB"), Optional(std::string("10M")));
    EXPECT_THAT(ValueForm::Size("1.5G"), Optional(std::string("1536M")));
    EXPECT_THAT(ValueForm::Size("10kB"), Optional(std::string("10k")));
    for (const char* value : {"unlimited", "-1", "", "0", "10 apples"}) {
        EXPECT_EQ(ValueForm::Size(value), std::nullopt) << value;
    }
}

TEST(Secret, AValueBehindTheNameOfASecretIsMasked) {
    EXPECT_EQ(Secret::Masked("Password=s3cret"), "Password=***");
    EXPECT_EQ(Secret::Masked(" ftp_password = s3cret"), " ftp_password =***");
    EXPECT_EQ(Secret::Masked("Password: s3cret"), "Password***");
    EXPECT_EQ(Secret::Masked("Subject=no secret here"), "Subject=no secret here");
    EXPECT_EQ(Secret::Masked(""), "");
    EXPECT_EQ(Secret::Masked("Pasword=s3cret"), "Pasword=***") << "what is misspelt is a secret all the same";
    EXPECT_EQ(Secret::Masked("[Password=s3cret"), "[Password=***");
    EXPECT_EQ(Secret::Masked("[Password]"), "[Password]");
}

TEST(Sha256, ItIsThatOfTheTextsOneBehindTheOther) {
    EXPECT_EQ(Sha256Of({{"a", "ab"}, {"b", "c"}}), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(Sha256Of({}), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

}  // namespace

}  // namespace kelto::halvek::ctl
