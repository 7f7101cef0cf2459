#include "companions/outbox/FrontEnds.h"

#include "companions/outbox/FtpputCommand.h"
#include "companions/outbox/Log.h"
#include "companions/outbox/MailMessage.h"
#include "companions/outbox/MemoryFile.h"
#include "companions/outbox/NextProgram.h"
#include "companions/outbox/Paths.h"
#include "companions/outbox/Submission.h"

#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>

namespace kelto::halvek::outbox {

using companion::UniqueFd;

namespace {

constexpr size_t longestMail = size_t{10} * 1024 * 1024;
/** A picture on standard input: nothing larger is ever taken. */
constexpr size_t longestInput = size_t{64} * 1024 * 1024;

/** Something for which a program ends with a status of its own. */
class Refusal : public std::runtime_error {
public:
    Refusal(int exitStatus, const std::string& text) : std::runtime_error(text), status(exitStatus) {}
    const int status;
};

/** What is no plain file is read here: the service never waits for anybody. */
UniqueFd OpenLocal(const std::string& path) {
    if (path == "-") {
        return MemoryFile::Of(MemoryFile::ReadAll(STDIN_FILENO, longestInput));
    }
    UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        throw Refusal(EX_NOINPUT, path + ": " + std::strerror(errno));
    }
    if (S_ISDIR(status.st_mode)) {
        throw Refusal(EX_NOINPUT, path + ": " + std::strerror(EISDIR));
    }
    return S_ISREG(status.st_mode) ? std::move(file) : MemoryFile::Of(MemoryFile::ReadAll(file.Get(), longestInput));
}

int Submit(const char* name, const ItemHeader& header, int payload) {
    std::string answer;
    const Submission::Outcome outcome = Submission::Submit(Paths().socket, header, payload, answer);
    Log::Say(std::string(name) + (outcome == Submission::Outcome::Queued ? ": queued " : ": not queued: ") + answer);
    return outcome == Submission::Outcome::Queued ? EX_OK : EX_TEMPFAIL;
}

/** The sender that -f names; throws Refusal for words that esmtp -t does not have here. */
std::string ParseEsmtp(int argc, char** argv) {
    std::string sender;
    bool takesRecipients = false;
    bool isKnown = true;
    opterr = 0;
    for (int letter = 0; (letter = getopt(argc, argv, "+tif:o:")) != -1;) {
        takesRecipients = takesRecipients || letter == 't';
        sender = letter == 'f' ? optarg : sender;
        isKnown = isKnown && letter != '?' && (letter != 'o' || std::string_view(optarg) == "i");
    }
    if (!isKnown || !takesRecipients || optind < argc) {
        throw Refusal(EX_USAGE, "usage: esmtp -t [-f SENDER] [-i] [-oi] [--] <MAIL");
    }
    return sender;
}

int SubmitMail(const std::string& sender, const std::string& raw) {
    if (raw.empty()) {
        throw Refusal(EX_DATAERR, "there is no mail on standard input");
    }
    const MailMessage mail = MailMessage::Parse(raw);
    if (mail.recipients.empty()) {
        throw Refusal(EX_DATAERR, "the mail has no recipient");
    }
    ItemHeader header;
    header.kind = ItemHeader::Kind::Mail;
    header.sender = sender.empty() ? mail.sender : sender;
    header.recipients = mail.recipients;
    return Submit("esmtp", header, MemoryFile::Of(mail.text).Get());
}

std::string ReadMail() {
    try {
        return MemoryFile::ReadAll(STDIN_FILENO, longestMail);
    } catch (const std::length_error&) {
        throw Refusal(EX_DATAERR, "the mail has more than 10 MiB");
    }
}

}  // namespace

int RunFtpput(int argc, char** argv) {
    UniqueFd file;
    bool isInput = false;
    try {
        const std::optional<FtpputCommand> command = FtpputCommand::Parse(argc, argv);
        if (!command) {
            Log::Say(FtpputCommand::Usage());
            return EXIT_FAILURE;
        }
        isInput = command->local == "-";
        file = OpenLocal(command->local);
        return Submit("ftpput", command->header, file.Get());
    } catch (const Refusal& refusal) {
        Log::Say(std::string("ftpput: ") + refusal.what());
        return refusal.status;
    } catch (const std::exception& failure) {
        if (isInput && file.IsOpen()) {
            lseek(file.Get(), 0, SEEK_SET);
            dup2(file.Get(), STDIN_FILENO);
        }
        NextProgram::Become("ftpput", argv, failure.what());
    }
    return EXIT_FAILURE;
}

int RunEsmtp(int argc, char** argv) {
    UniqueFd copy;
    try {
        const std::string sender = ParseEsmtp(argc, argv);
        const std::string raw = ReadMail();
        copy = MemoryFile::Of(raw);
        return SubmitMail(sender, raw);
    } catch (const Refusal& refusal) {
        Log::Say(std::string("esmtp: ") + refusal.what());
        return refusal.status;
    } catch (const std::exception& failure) {
        if (copy.IsOpen()) {
            dup2(copy.Get(), STDIN_FILENO);
        }
        NextProgram::Become("esmtp", argv, failure.what());
    }
    return EXIT_FAILURE;
}

}  // namespace kelto::halvek::outbox
