#include "companions/outbox/Evidence.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kelto::halvek::outbox {

void PrintTo(Verdict::Kind kind, std::ostream* stream) {
    constexpr const char* words[] = {"delivered", "wait",      "wait for the clock", "hold",
                                     "fail",      "uncertain", "without rename",     "partly"};
    *stream << words[static_cast<size_t>(kind)];
}

namespace {

using Kind = Verdict::Kind;

Evidence Of(Evidence::Protocol protocol, int result, const std::string& command = "", int reply = 0) {
    Evidence evidence;
    evidence.protocol = protocol;
    evidence.result = result;
    evidence.command = command;
    evidence.reply = reply;
    evidence.replyText = std::to_string(reply) + " text";
    return evidence;
}

Kind Ftp(int result, const std::string& command = "", int reply = 0) {
    return Of(Evidence::Protocol::Ftp, result, command, reply).Judge().kind;
}

Kind Smtp(const std::string& command, int reply) {
    return Of(Evidence::Protocol::Smtp, CURLE_SEND_ERROR, command, reply).Judge().kind;
}

Kind Recipients(int result, const std::vector<int>& codes) {
    Evidence evidence = Of(Evidence::Protocol::Smtp, result, "RCPT", codes.back());
    for (const int code : codes) {
        evidence.recipients.push_back({"x", code, std::to_string(code)});
    }
    return evidence.Judge().kind;
}

TEST(EvidenceTest, ATargetThatCannotBeHadIsWaitedFor) {
    for (const int result : {CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_CONNECT, CURLE_OPERATION_TIMEDOUT,
                             CURLE_SSL_CONNECT_ERROR, CURLE_RECV_ERROR, CURLE_SEND_ERROR, CURLE_FAILED_INIT}) {
        EXPECT_EQ(Ftp(result), Kind::Wait) << result;
    }
    EXPECT_EQ(Of(Evidence::Protocol::Sftp, CURLE_SSH).Judge().kind, Kind::Wait);
}

TEST(EvidenceTest, AnswersOfFtpThatPass) {
    for (const int reply : {421, 425, 426, 450, 451, 452}) {
        EXPECT_EQ(Ftp(CURLE_FTP_COULDNT_STOR_FILE, "STOR", reply), Kind::Wait) << reply;
    }
    EXPECT_EQ(Ftp(CURLE_LOGIN_DENIED, "PASS", 421), Kind::Wait);
}

TEST(EvidenceTest, AnswersOfFtpThatSomebodyHasToMend) {
    EXPECT_EQ(Ftp(CURLE_LOGIN_DENIED, "PASS", 530), Kind::Hold);
    EXPECT_EQ(Ftp(CURLE_FTP_COULDNT_STOR_FILE, "STOR", 534), Kind::Hold);
    EXPECT_EQ(Ftp(CURLE_REMOTE_DISK_FULL, "STOR", 552), Kind::Hold);
    EXPECT_EQ(Ftp(CURLE_USE_SSL_FAILED, "AUTH", 502), Kind::Hold);
}

TEST(EvidenceTest, AnswersOfFtpThatAreTheItemsOwn) {
    EXPECT_EQ(Ftp(CURLE_UPLOAD_FAILED, "STOR", 550), Kind::Fail);
    EXPECT_EQ(Ftp(CURLE_UPLOAD_FAILED, "STOR", 553), Kind::Fail);
    EXPECT_EQ(Ftp(CURLE_REMOTE_ACCESS_DENIED, "CWD", 550), Kind::Fail);
    EXPECT_EQ(Ftp(CURLE_URL_MALFORMAT), Kind::Fail);
}

TEST(EvidenceTest, AServerThatDoesNotRenameGetsNoOtherName) {
    EXPECT_EQ(Ftp(CURLE_QUOTE_ERROR, "RNFR", 500), Kind::WithoutRename);
    EXPECT_EQ(Ftp(CURLE_QUOTE_ERROR, "RNTO", 553), Kind::WithoutRename);
    EXPECT_EQ(Of(Evidence::Protocol::Sftp, CURLE_QUOTE_ERROR).Judge().kind, Kind::WithoutRename);
}

TEST(EvidenceTest, AnUploadOfAnotherSizeIsNone) {
    Evidence evidence = Of(Evidence::Protocol::Ftp, CURLE_WRITE_ERROR, "SIZE", 213);
    evidence.hasOtherSize = true;
    EXPECT_EQ(evidence.Judge().kind, Kind::Wait);
}

TEST(EvidenceTest, ACertificateThatCannotBeTrustedHoldsTheTarget) {
    for (const int result :
         {CURLE_PEER_FAILED_VERIFICATION, CURLE_SSL_PINNEDPUBKEYNOTMATCH, CURLE_SSL_CACERT_BADFILE}) {
        EXPECT_EQ(Ftp(result), Kind::Hold) << result;
    }
    EXPECT_EQ(Of(Evidence::Protocol::Sftp, CURLE_PEER_FAILED_VERIFICATION).Judge().kind, Kind::Hold);
}

TEST(EvidenceTest, ACertificateThatIsNotValidYetWaitsOnlyWhileTheClockIsNotSet) {
    Evidence evidence = Of(Evidence::Protocol::Ftp, CURLE_PEER_FAILED_VERIFICATION);
    evidence.certificate = 9;
    EXPECT_EQ(evidence.Judge().kind, Kind::Hold);
    evidence.isClockTrusted = false;
    EXPECT_EQ(evidence.Judge().kind, Kind::WaitForClock);
    evidence.certificate = 10;
    EXPECT_EQ(evidence.Judge().kind, Kind::Hold);
}

TEST(EvidenceTest, AnswersOfSftp) {
    EXPECT_EQ(Of(Evidence::Protocol::Sftp, CURLE_OK).Judge().kind, Kind::Delivered);
    EXPECT_EQ(Of(Evidence::Protocol::Sftp, CURLE_REMOTE_FILE_NOT_FOUND).Judge().kind, Kind::Fail);
    EXPECT_EQ(Of(Evidence::Protocol::Sftp, CURLE_REMOTE_ACCESS_DENIED).Judge().kind, Kind::Fail);
    EXPECT_EQ(Of(Evidence::Protocol::Sftp, CURLE_REMOTE_DISK_FULL).Judge().kind, Kind::Hold);
    EXPECT_EQ(Of(Evidence::Protocol::Sftp, CURLE_LOGIN_DENIED).Judge().kind, Kind::Hold);
}

TEST(EvidenceTest, AnswersOfSmtp) {
    EXPECT_EQ(Smtp("", 421), Kind::Wait);
    EXPECT_EQ(Smtp("MAIL", 451), Kind::Wait);
    EXPECT_EQ(Smtp(".", 450), Kind::Wait);
    EXPECT_EQ(Smtp("AUTH", 535), Kind::Hold);
    EXPECT_EQ(Smtp("MAIL", 530), Kind::Hold);
    EXPECT_EQ(Smtp("AUTH", 454), Kind::Wait);
    EXPECT_EQ(Smtp(".", 452), Kind::Hold);
    EXPECT_EQ(Smtp(".", 552), Kind::Hold);
    EXPECT_EQ(Smtp("MAIL", 552), Kind::Fail);
    EXPECT_EQ(Smtp("MAIL", 550), Kind::Fail);
    EXPECT_EQ(Smtp(".", 554), Kind::Fail);
}

TEST(EvidenceTest, RecipientsThatAreRefusedDoNotCostTheOthersTheirMail) {
    EXPECT_EQ(Recipients(CURLE_OK, {250, 250}), Kind::Delivered);
    EXPECT_EQ(Recipients(CURLE_OK, {250, 550}), Kind::Delivered);
    EXPECT_EQ(Recipients(CURLE_OK, {250, 450}), Kind::Partly);
    EXPECT_EQ(Recipients(CURLE_SEND_ERROR, {550, 551}), Kind::Fail);
    EXPECT_EQ(Recipients(CURLE_SEND_ERROR, {550, 450}), Kind::Wait);
    EXPECT_EQ(Recipients(CURLE_SEND_ERROR, {552}), Kind::Hold);
}

TEST(EvidenceTest, OnlyAMailThatWasAllSentIsUncertain) {
    Evidence evidence = Of(Evidence::Protocol::Smtp, CURLE_RECV_ERROR, ".");
    EXPECT_EQ(evidence.Judge().kind, Kind::Wait);
    evidence.wasAllSent = true;
    EXPECT_EQ(evidence.Judge().kind, Kind::Uncertain);
}

}  // namespace
}  // namespace kelto::halvek::outbox
