#include "handler/EmailEventHandler.h"

#include "env/HandlerRegistry.h"
#include "env/SettingsReader.h"
#include "kelto/core/Logger.h"
#include "kelto/inet/EmailMessage.h"
#include "kelto/osa/Exception.h"
#include "util/base64.h"

#include <csignal>
#include <cstdio>
#include <ctime>
#include <exception>
#include <sstream>
#include <utility>

namespace kelto::halvek::handler {

namespace {

constexpr const char* mailProgram = "esmtp -t";
constexpr size_t longestBody = 5000;
constexpr size_t expansionFactor = 10;

std::unique_ptr<EventHandler> Create(HalvekEnv*) {
    return std::make_unique<EmailEventHandler>();
}

constexpr HandlerRegistration registration{"Email", Create, 0};
[[gnu::init_priority(RegisterEmail)]] const HandlerRegistrar registrar(&registration);

/** The template with the time of now put in; empty if it expands beyond the buffer. */
std::string ExpandTemplate(const std::vector<char>& messageTemplate) {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    // On the heap: a source's thread has a small stack.
    std::string text(expansionFactor * messageTemplate.size(), '\0');
    text.resize(std::strftime(text.data(), text.size(), messageTemplate.data(), &local));
    return text;
}

std::string FormatProperties(const Event& event) {
    std::string text = "\n";
    for (const auto& [key, value] : event.GetProperties()) {
        text.append(key).append(" = ").append(value).append("\n");
    }
    return text;
}

void BlockBrokenPipeSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

void HandToMailProgram(const std::string& mail) {
    // Not inherited by commands that other threads start meanwhile: the mail would not end before them.
    FILE* const program = popen(mailProgram, "we");
    if (program == nullptr) {
        return;
    }
    // An interruption loses nothing: the daemon's signal handlers have the write go on.
    static_cast<void>(std::fwrite(mail.data(), 1, mail.size(), program));
    pclose(program);
}

}  // namespace

EmailEventHandler::EmailEventHandler(SnapshotLookUp lookUp)
    : logger(core::Logger::GetLogger("halvek")), lookUpSnapshot(std::move(lookUp)) {}

void EmailEventHandler::Configure(const core::IniFile::Group& group) {
    EventHandler::Configure(group);
    const SettingsReader reader(group);
    reader.TryRead(keys.Text("To"), to);
    reader.TryRead(keys.Text("From"), from);
    reader.TryRead(keys.Text("Subject"), subject);
    ReadMessage(group);
    attachSnapshot = reader.Read(keys.Boolean("Attachment"));
    logger.Debug("\tThe value of _attach: %i", attachSnapshot ? 1 : 0);
    rawEventData = reader.Read(keys.Boolean("RawEventData"));
    if (!attachSnapshot) {
        return;
    }
    FindSnapshot();
}

void EmailEventHandler::ReadMessage(const core::IniFile::Group& group) {
    std::string text;
    SettingsReader(group).TryRead(keys.Text("Message"), text);
    const size_t length = base64_decode_len(text.data(), text.size());
    messageTemplate.assign(length + 1, '\0');
    base64_decode(text.data(), text.size(), messageTemplate.data(), length);
}

void EmailEventHandler::FindSnapshot() {
    logger.Debug("\tThe user wants an email attachment");
    try {
        snapshotPath = lookUpSnapshot();
        logger.Debug("\tThe attachment we are using: %s", snapshotPath.c_str());
    } catch (const std::exception& exception) {
        logger.Warning("\tEmailEventHandler: %s", exception.what());
    } catch (...) {
        logger.Warning("\tEmailEventHandler: Error fetching value of SnapshotPath, not sending attachments");
    }
    if (snapshotPath.empty()) {
        logger.Error("\tEmailEventHandler: the user wanted an attachment, but none is found");
        attachSnapshot = false;
    }
}

bool EmailEventHandler::IsConfigured() const {
    return true;
}

void EmailEventHandler::PerformAction(Event& event) {
    try {
        if (!IsConfigured()) {
            throw osa::Exception("EmailEventHandler: not configured");
        }
        const std::string mail = ComposeMail(event);
        logger.Debug("Message size: %d", static_cast<int>(mail.size()));
        BlockBrokenPipeSignal();
        HandToMailProgram(mail);
    } catch (const osa::Exception& exception) {
        logger.Error("%s", exception.what());
    } catch (...) {
        logger.Error("EmailEventHandler: Error, unknown exception caught");
    }
}

std::string EmailEventHandler::ComposeMail(const Event& event) const {
    logger.Information("Sending email to %s", to.c_str());
    inet::EmailMessage message(from, subject);
    message.AddRecipient(to, inet::EmailMessage::Recipient::To);
    if (!messageTemplate.empty()) {
        AddTexts(message, event);
    }
    logger.Debug("_attach: %i \t path: %s", attachSnapshot ? 1 : 0, snapshotPath.c_str());
    if (attachSnapshot && !snapshotPath.empty()) {
        logger.Debug("Attaching the snapshot to the email");
        message.Attach(snapshotPath);
    }
    std::ostringstream mail;
    // Of its own accord a stream that gets no memory says nothing, and half a mail would be sent.
    mail.exceptions(std::ios::badbit);
    mail << message;
    return std::move(mail).str();
}

void EmailEventHandler::AddTexts(inet::EmailMessage& message, const Event& event) const {
    const std::string body = ExpandTemplate(messageTemplate);
    if (body.size() > longestBody) {
        message.AddContent("The configured email message was too long, please use less than " +
                           std::to_string(longestBody) + " characters");
    } else {
        message.AddContent(body.data(), static_cast<unsigned int>(body.size()));
    }
    if (event.HasProperties() && rawEventData) {
        message.AddContent(FormatProperties(event));
    }
}

}  // namespace kelto::halvek::handler
