#include "companions/outbox/Evidence.h"

#include <curl/curl.h>

#include <algorithm>
#include <initializer_list>

namespace kelto::halvek::outbox {

namespace {

using Kind = Verdict::Kind;

/** X509_V_ERR_CERT_NOT_YET_VALID */
constexpr long certificateNotYetValid = 9;
/** The enhanced status of a mail that is too long, RFC 3463: it is not the mailbox that is full. */
constexpr const char* tooLong = "5.3.4";

bool IsOneOf(int code, std::initializer_list<int> codes) {
    return std::find(codes.begin(), codes.end(), code) != codes.end();
}

bool IsOneOf(const std::string& word, std::initializer_list<const char*> words) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

constexpr int transient = 400;
constexpr int permanent = 500;

}  // namespace

Verdict Evidence::Judge() const {
    switch (protocol) {
        case Protocol::Ftp:
            return JudgeFtp();
        case Protocol::Sftp:
            return JudgeSftp();
        case Protocol::Smtp:
            return JudgeSmtp();
    }
    return JudgeResult();
}

std::string Evidence::Said() const {
    return reply >= transient ? "the server answers " + command + " with " + replyText : resultText;
}

Verdict Evidence::JudgeFtp() const {
    if (hasOtherSize) {
        return {Kind::Wait, "the server tells another size: " + replyText};
    }
    if (result == CURLE_OK) {
        return {Kind::Delivered, {}};
    }
    if (reply >= transient && reply < permanent) {
        return {Kind::Wait, Said()};
    }
    if (reply >= permanent) {
        if (IsOneOf(command, {"USER", "PASS", "ACCT", "AUTH", "PBSZ", "PROT"}) || IsOneOf(reply, {530, 534, 552})) {
            return {Kind::Hold, Said()};
        }
        if (IsOneOf(command, {"RNFR", "RNTO"})) {
            return {Kind::WithoutRename, Said()};
        }
        if (IsOneOf(reply, {550, 553}) || (command == "STOR" && IsOneOf(reply, {501, 551}))) {
            return {Kind::Fail, Said()};
        }
    }
    return JudgeResult();
}

Verdict Evidence::JudgeSftp() const {
    switch (result) {
        case CURLE_OK:
            return {Kind::Delivered, {}};
        case CURLE_QUOTE_ERROR:
            return {Kind::WithoutRename, resultText};
        case CURLE_REMOTE_FILE_NOT_FOUND:
        case CURLE_REMOTE_ACCESS_DENIED:
            return {Kind::Fail, resultText};
        case CURLE_REMOTE_DISK_FULL:
            return {Kind::Hold, resultText};
        default:
            return JudgeResult();
    }
}

Verdict Evidence::JudgeRecipients() const {
    std::string refused;
    bool hasTaken = false;
    bool mayTake = false;
    for (const RecipientAnswer& answer : recipients) {
        hasTaken = hasTaken || answer.code < transient;
        mayTake = mayTake || (answer.code >= transient && answer.code < permanent);
        if (answer.code >= transient) {
            refused += (refused.empty() ? "" : ", ") + answer.recipient + ": " + answer.text;
        }
    }
    if (result == CURLE_OK) {
        return {mayTake ? Kind::Partly : Kind::Delivered, refused};
    }
    if (hasTaken) {
        return JudgeResult();
    }
    const auto isFull = [](const RecipientAnswer& answer) { return IsOneOf(answer.code, {452, 552}); };
    if (std::any_of(recipients.begin(), recipients.end(), isFull)) {
        return {Kind::Hold, refused};
    }
    return {mayTake ? Kind::Wait : Kind::Fail, refused};
}

Verdict Evidence::JudgeSmtp() const {
    if (result == CURLE_OK || command == "RCPT") {
        return JudgeRecipients();
    }
    if (command == "." && wasAllSent && reply < transient) {
        return {Kind::Uncertain, "the mail was sent, and nothing was heard of it: " + resultText};
    }
    const bool isOfMail = IsOneOf(command, {"MAIL", "DATA", "."});
    if (isOfMail && reply == 552 && (command == "MAIL" || replyText.find(tooLong) != std::string::npos)) {
        return {Kind::Fail, Said()};
    }
    if (IsOneOf(reply, {530, 534, 535, 538}) || (isOfMail && IsOneOf(reply, {452, 552}))) {
        return {Kind::Hold, Said()};
    }
    if (reply >= transient && reply < permanent) {
        return {Kind::Wait, Said()};
    }
    if (isOfMail && reply >= permanent) {
        return {Kind::Fail, Said()};
    }
    return JudgeResult();
}

Verdict Evidence::JudgeResult() const {
    switch (result) {
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_ISSUER_ERROR:
            if (protocol != Protocol::Sftp && certificate == certificateNotYetValid && !isClockTrusted) {
                return {Kind::WaitForClock, "the clock is not set, so no certificate is valid yet"};
            }
            return {Kind::Hold, resultText};
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_USE_SSL_FAILED:
        case CURLE_LOGIN_DENIED:
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_NOT_BUILT_IN:
            return {Kind::Hold, Said()};
        case CURLE_URL_MALFORMAT:
            // A name that no server could be asked for.
            return {Kind::Fail, Said()};
        default:
            return {Kind::Wait, Said()};
    }
}

}  // namespace kelto::halvek::outbox
