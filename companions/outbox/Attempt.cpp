#include "companions/outbox/Attempt.h"

#include "companions/outbox/FieldText.h"
#include "companions/outbox/SpoolFolder.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace kelto::halvek::outbox {

namespace {

// In milliseconds and bytes a second, as an attempt may take them.
constexpr long connectTimeout = 15'000;
constexpr long wholeTimeout = 300'000;
constexpr long stalledSec = 30;
constexpr long stalledRate = 100;

/** What stands in the middle of a dialogue and is no command of it is an answer that nobody else shall see. */
constexpr std::array<std::string_view, 25> commands = {
    "USER", "PASS", "ACCT", "AUTH", "PBSZ", "PROT", "PWD",  "CWD",  "MKD",      "TYPE", "EPSV", "PASV", "STOR",
    "SIZE", "RNFR", "RNTO", "DELE", "EHLO", "HELO", "MAIL", "RCPT", "STARTTLS", "DATA", "EPRT", "PORT"};
constexpr std::string_view farewell = "QUIT";
constexpr std::string_view mailText = ".";
constexpr int startMail = 354;
constexpr std::string_view hidden = "***";
constexpr size_t shortestHidden = 4;
constexpr int sizeTold = 213;

template <typename Value>
void Set(CURL* handle, CURLoption option, Value value) {
    if (const CURLcode code = curl_easy_setopt(handle, option, value); code != CURLE_OK) {
        throw std::runtime_error(curl_easy_strerror(code));
    }
}

/** A word of a command of SFTP. */
std::string Quoted(const std::string& name) {
    std::string text = "\"";
    for (const char byte : name) {
        if (byte == '"' || byte == '\\') {
            text.push_back('\\');
        }
        text.push_back(byte);
    }
    return text.append("\"");
}

std::string_view WithoutLineEnd(std::string_view line) {
    return line.substr(0, std::min(line.find_first_of("\r\n"), line.size()));
}

Evidence::Protocol ProtocolOf(const std::string& scheme) {
    if (scheme == "sftp") {
        return Evidence::Protocol::Sftp;
    }
    return scheme.starts_with("smtp") ? Evidence::Protocol::Smtp : Evidence::Protocol::Ftp;
}

}  // namespace

Attempt::Attempt(std::shared_ptr<CURL> easy, Order wanted, bool keepsIt)
    : handle(std::move(easy)), keepsConnection(keepsIt), order(std::move(wanted)) {
    evidence.protocol = ProtocolOf(order.server.scheme);
    evidence.isClockTrusted = order.isClockTrusted;
}

Attempt::~Attempt() {
    curl_easy_reset(Handle());
}

bool Attempt::Prepare() {
    try {
        SetCommon();
        SetServer();
        Resolve();
    } catch (const std::exception& failure) {
        evidence.result = CURLE_FAILED_INIT;
        evidence.resultText = failure.what();
        return false;
    }
    return true;
}

Evidence Attempt::Conclude(CURLcode result) {
    if (evidence.result == CURLE_OK) {
        evidence.result = result;
        evidence.resultText = error[0] != '\0' ? error : curl_easy_strerror(result);
        curl_easy_getinfo(Handle(), CURLINFO_SSL_VERIFYRESULT, &evidence.certificate);
        HideSecret();
    }
    return evidence;
}

/** A server may repeat what it was told, and what it says ends up in logs. */
void Attempt::HideSecret() {
    const std::string& secret = order.server.password;
    const auto hide = [&](std::string& text) {
        for (size_t at = 0; !secret.empty() && (at = text.find(secret, at)) != std::string::npos; at += hidden.size()) {
            text.replace(at, secret.size(), hidden);
        }
    };
    // Shorter ones are in every other word.
    if (secret.size() >= shortestHidden) {
        hide(evidence.resultText);
        hide(evidence.replyText);
        for (Evidence::RecipientAnswer& answer : evidence.recipients) {
            hide(answer.text);
        }
    }
}

void Attempt::SetCommon() {
    Set(Handle(), CURLOPT_ERRORBUFFER, error);
    Set(Handle(), CURLOPT_NOSIGNAL, 1L);
    Set(Handle(), CURLOPT_PROXY, "");
    Set(Handle(), CURLOPT_CONNECTTIMEOUT_MS, connectTimeout);
    Set(Handle(), CURLOPT_TIMEOUT_MS, wholeTimeout);
    Set(Handle(), CURLOPT_LOW_SPEED_TIME, stalledSec);
    Set(Handle(), CURLOPT_LOW_SPEED_LIMIT, stalledRate);
    Set(Handle(), CURLOPT_SERVER_RESPONSE_TIMEOUT, stalledSec);
    Set(Handle(), CURLOPT_UPLOAD, 1L);
    Set(Handle(), CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(order.size));
    Set(Handle(), CURLOPT_READFUNCTION, &Attempt::Read);
    Set(Handle(), CURLOPT_READDATA, static_cast<void*>(this));
    Set(Handle(), CURLOPT_SEEKFUNCTION, &Attempt::Seek);
    Set(Handle(), CURLOPT_SEEKDATA, static_cast<void*>(this));
    Set(Handle(), CURLOPT_HEADERFUNCTION, &Attempt::TakeHeader);
    Set(Handle(), CURLOPT_HEADERDATA, static_cast<void*>(this));
    Set(Handle(), CURLOPT_DEBUGFUNCTION, &Attempt::TakeDebug);
    Set(Handle(), CURLOPT_DEBUGDATA, static_cast<void*>(this));
    Set(Handle(), CURLOPT_VERBOSE, 1L);
    Set(Handle(), CURLOPT_XFERINFOFUNCTION, &Attempt::Progress);
    Set(Handle(), CURLOPT_XFERINFODATA, static_cast<void*>(this));
    Set(Handle(), CURLOPT_NOPROGRESS, 0L);
    Set(Handle(), CURLOPT_FRESH_CONNECT, keepsConnection ? 0L : 1L);
    Set(Handle(), CURLOPT_FORBID_REUSE, keepsConnection ? 0L : 1L);
}

void Attempt::SetServer() {
    const Server& server = order.server;
    if (!server.user.empty()) {
        Set(Handle(), CURLOPT_USERNAME, server.user.c_str());
        Set(Handle(), CURLOPT_PASSWORD, server.password.c_str());
    }
    if (!server.caFile.empty()) {
        Set(Handle(), CURLOPT_CAINFO, server.caFile.c_str());
    }
    if (!server.pin.empty()) {
        Set(Handle(), CURLOPT_PINNEDPUBLICKEY, server.pin.c_str());
    }
    if (server.isTls12) {
        Set(Handle(), CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_MAX_TLSv1_2));
    }
    switch (evidence.protocol) {
        case Evidence::Protocol::Ftp:
            return SetFtp();
        case Evidence::Protocol::Sftp:
            return SetSftp();
        case Evidence::Protocol::Smtp:
            return SetMail();
    }
}

std::string Attempt::Authority() const {
    const std::string& host = order.server.host;
    const bool isAddress6 = host.find(':') != std::string::npos;
    return (isAddress6 ? "[" + host + "]" : host) + ":" + std::to_string(order.server.port);
}

/** Beside the file, so that it can be renamed. It is the same for every attempt: none is left behind. */
std::string Attempt::TemporaryName() const {
    const size_t folder = order.remote.rfind('/') + 1;
    return order.remote.substr(0, folder) + ".halvek-" + SpoolFolder::NameOf(order.id) + ".part";
}

void Attempt::SetFtp() {
    const std::string temporary = TemporaryName();
    const std::string& name = order.renames ? temporary : order.remote;
    const std::string scheme = order.server.scheme == "ftps-implicit" ? "ftps" : "ftp";
    const std::string url = scheme + "://" + Authority() + "/" + FieldText::EscapeForUrl(name);
    Set(Handle(), CURLOPT_URL, url.c_str());
    if (order.server.scheme != "ftp") {
        Set(Handle(), CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
    }
    // ftpput changes no folder. Folders are made only where a change to one has failed.
    Set(Handle(), CURLOPT_FTP_FILEMETHOD,
        static_cast<long>(order.makesFolders ? CURLFTPMETHOD_MULTICWD : CURLFTPMETHOD_NOCWD));
    if (order.makesFolders) {
        Set(Handle(), CURLOPT_FTP_CREATE_MISSING_DIRS, static_cast<long>(CURLFTP_CREATE_DIR_RETRY));
    }
    const auto here = [&](const std::string& path) {
        return order.makesFolders ? path.substr(path.rfind('/') + 1) : path;
    };
    Add(after, "*SIZE " + here(name));
    if (order.renames) {
        Add(after, "RNFR " + here(temporary));
        Add(after, "RNTO " + here(order.remote));
    } else if (order.mayHaveLeftPart) {
        Add(after, "*DELE " + here(temporary));
    }
    Set(Handle(), CURLOPT_POSTQUOTE, after.get());
}

void Attempt::SetSftp() {
    const std::string temporary = TemporaryName();
    const std::string& name = order.renames ? temporary : order.remote;
    // "/~/" is the account's folder to the library.
    const std::string path = name.starts_with("/~/") ? "/." + name : name.starts_with("/") ? name : "/~/" + name;
    std::string url = "sftp://" + Authority();
    for (size_t begin = 1; begin <= path.size();) {
        const size_t end = std::min(path.find('/', begin), path.size());
        const std::string part = path.substr(begin, end - begin);
        url += "/" + (part == "~" ? part : FieldText::EscapeForUrl(part));
        begin = end + 1;
    }
    Set(Handle(), CURLOPT_URL, url.c_str());
    Set(Handle(), CURLOPT_SSH_KNOWNHOSTS, order.knownHosts.c_str());
    Set(Handle(), CURLOPT_SSH_AUTH_TYPES, static_cast<long>(CURLSSH_AUTH_PASSWORD | CURLSSH_AUTH_KEYBOARD));
    if (order.makesFolders) {
        Set(Handle(), CURLOPT_FTP_CREATE_MISSING_DIRS, static_cast<long>(CURLFTP_CREATE_DIR_RETRY));
    }
    if (order.renames) {
        // A rename does not replace a file.
        Add(after, "*rm " + Quoted(order.remote));
        Add(after, "rename " + Quoted(temporary) + " " + Quoted(order.remote));
    } else if (order.mayHaveLeftPart) {
        Add(after, "*rm " + Quoted(temporary));
    }
    Set(Handle(), CURLOPT_POSTQUOTE, after.get());
}

void Attempt::SetMail() {
    const std::string url = order.server.scheme + "://" + Authority();
    Set(Handle(), CURLOPT_URL, url.c_str());
    if (!order.server.neverUsesTls) {
        Set(Handle(), CURLOPT_USE_SSL, static_cast<long>(order.server.mustUseTls ? CURLUSESSL_ALL : CURLUSESSL_TRY));
    }
    Set(Handle(), CURLOPT_MAIL_FROM, ("<" + order.sender + ">").c_str());
    for (const std::string& recipient : order.recipients) {
        Add(recipients, "<" + recipient + ">");
    }
    Set(Handle(), CURLOPT_MAIL_RCPT, recipients.get());
    // One that is refused must not cost the others their mail.
    Set(Handle(), CURLOPT_MAIL_RCPT_ALLLOWFAILS, 1L);
}

/**
 * Looks the server up on this thread: the library would start another one, which cannot be ended before the resolver
 * gives up.
 */
void Attempt::Resolve() {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_ADDRCONFIG;
    addrinfo* found = nullptr;
    in6_addr literal{};
    const char* host = order.server.host.c_str();
    if (inet_pton(AF_INET, host, &literal) == 1 || inet_pton(AF_INET6, host, &literal) == 1) {
        return;
    }
    if (const int failure = getaddrinfo(host, nullptr, &hints, &found); failure != 0) {
        throw std::runtime_error(order.server.host + ": " + gai_strerror(failure));
    }
    std::string line = "+" + order.server.host + ":" + std::to_string(order.server.port) + ":";
    for (const addrinfo* next = found; next != nullptr; next = next->ai_next) {
        std::array<char, NI_MAXHOST> address{};
        if (getnameinfo(next->ai_addr, next->ai_addrlen, address.data(), address.size(), nullptr, 0, NI_NUMERICHOST) ==
            0) {
            const bool isFirst = line.back() == ':';
            line += isFirst ? "" : ",";
            line += next->ai_family == AF_INET6 ? "[" + std::string(address.data()) + "]" : address.data();
        }
    }
    freeaddrinfo(found);
    Add(addresses, line);
    Set(Handle(), CURLOPT_RESOLVE, addresses.get());
}

void Attempt::Add(List& list, const std::string& line) {
    curl_slist* longer = curl_slist_append(list.get(), line.c_str());
    if (longer == nullptr) {
        throw std::bad_alloc();
    }
    static_cast<void>(list.release());
    list.reset(longer);
}

void Attempt::TakeCommand(std::string_view line) {
    const std::string_view word = line.substr(0, std::min(line.find_first_of(" \r\n"), line.size()));
    // What is said to the farewell is said of nothing.
    isLeaving = word == farewell;
    if (std::find(commands.begin(), commands.end(), word) == commands.end()) {
        return;
    }
    evidence.command = word;
    evidence.reply = 0;
    evidence.replyText.clear();
    if (word == "RCPT" && evidence.recipients.size() < order.recipients.size()) {
        evidence.recipients.push_back({order.recipients[evidence.recipients.size()], 0, {}});
    }
}

bool Attempt::TakeReply(std::string_view line) {
    const std::string_view text = WithoutLineEnd(line);
    const auto code = FieldText::Number(text.substr(0, 3), 599);
    // The others are lines of an answer that goes on.
    if (isLeaving || text.size() < 3 || !code || (text.size() > 3 && text[3] != ' ')) {
        return true;
    }
    evidence.reply = static_cast<int>(*code);
    evidence.replyText = text;
    if (evidence.command == "RCPT" && !evidence.recipients.empty()) {
        evidence.recipients.back().code = evidence.reply;
        evidence.recipients.back().text = text;
    }
    if (evidence.command == "DATA" && evidence.reply == startMail) {
        evidence.command = mailText;
        evidence.reply = 0;
    }
    if (evidence.command == "SIZE" && evidence.reply == sizeTold) {
        const auto told = FieldText::Number(text.substr(std::min<size_t>(text.find_last_of(' ') + 1, text.size())));
        evidence.hasOtherSize = told && static_cast<uint64_t>(*told) != order.size;
    }
    return !evidence.hasOtherSize;
}

size_t Attempt::Read(char* buffer, size_t size, size_t count, void* self) {
    auto& attempt = *static_cast<Attempt*>(self);
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(size * count, attempt.order.size - attempt.position));
    const ssize_t got =
        pread(attempt.order.file->Get(), buffer, wanted, static_cast<off_t>(attempt.order.offset + attempt.position));
    if (got < 0 || (got == 0 && wanted > 0)) {
        return CURL_READFUNC_ABORT;
    }
    attempt.position += static_cast<uint64_t>(got);
    attempt.evidence.wasAllSent = attempt.position == attempt.order.size;
    return static_cast<size_t>(got);
}

int Attempt::Seek(void* self, curl_off_t offset, int origin) {
    auto& attempt = *static_cast<Attempt*>(self);
    if (origin != SEEK_SET || offset < 0 || static_cast<uint64_t>(offset) > attempt.order.size) {
        return CURL_SEEKFUNC_FAIL;
    }
    attempt.position = static_cast<uint64_t>(offset);
    return CURL_SEEKFUNC_OK;
}

size_t Attempt::TakeHeader(char* line, size_t size, size_t count, void* self) {
    // Fewer bytes than there are end the attempt.
    return static_cast<Attempt*>(self)->TakeReply({line, size * count}) ? size * count : 0;
}

int Attempt::TakeDebug(CURL*, curl_infotype type, char* text, size_t length, void* self) {
    if (type == CURLINFO_HEADER_OUT) {
        static_cast<Attempt*>(self)->TakeCommand({text, length});
    }
    return 0;
}

int Attempt::Progress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return *static_cast<Attempt*>(self)->order.isCancelled ? 1 : 0;
}

}  // namespace kelto::halvek::outbox
