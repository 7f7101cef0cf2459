#include "companions/outbox/Submission.h"

namespace kelto::halvek::outbox {

namespace {

/** The daemon waits for it. */
constexpr std::chrono::seconds patience{5};

}  // namespace

Submission::Outcome Submission::Submit(const std::string& socketPath, const ItemHeader& header, int payload,
                                       std::string& answer) {
    Request request(socketPath, patience);
    std::string text;
    FieldText::Append(text, "verb", verb);
    request.Send(text + header.Encode(), payload);
    const std::string line = request.ReadLine();
    if (line.starts_with(full)) {
        answer = line.substr(full.size());
        return Outcome::Full;
    }
    if (!line.starts_with(queued)) {
        throw Unreachable(line.empty() ? "the outbox takes nothing" : "the outbox says: " + line);
    }
    request.Send(heard);
    // Nothing more is said, unless this came too late.
    if (request.ReadLine() == forgotten) {
        throw Unreachable("the outbox has waited too long");
    }
    answer = line.substr(queued.size());
    return Outcome::Queued;
}

}  // namespace kelto::halvek::outbox
