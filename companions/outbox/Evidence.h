#pragma once

#include "companions/outbox/Verdict.h"

#include <string>
#include <vector>

namespace kelto::halvek::outbox {

/** What was seen in an attempt, as far as it says what has happened. A plain value. */
struct Evidence {
    enum class Protocol { Ftp, Sftp, Smtp };

    /** A recipient and the server's answer to it. */
    struct RecipientAnswer {
        std::string recipient;
        int code = 0;
        std::string text;
    };

    Protocol protocol = Protocol::Ftp;
    /** A CURLcode. */
    int result = 0;
    std::string resultText;
    /** Of the server's certificate, as OpenSSL counts; 0 is good. */
    long certificate = 0;
    /** The last command, in capitals: "STOR". With "." a mail's text has begun. */
    std::string command;
    /** The last answer to it; 0 if there was none. */
    int reply = 0;
    std::string replyText;
    /** Whether the last byte was handed to the network. */
    bool wasAllSent = false;
    /** Whether the size that the server told is another one. */
    bool hasOtherSize = false;
    std::vector<RecipientAnswer> recipients;
    bool isClockTrusted = true;

    Verdict Judge() const;

private:
    Verdict JudgeFtp() const;
    Verdict JudgeSftp() const;
    Verdict JudgeSmtp() const;
    Verdict JudgeRecipients() const;
    Verdict JudgeResult() const;
    std::string Said() const;
};

}  // namespace kelto::halvek::outbox
