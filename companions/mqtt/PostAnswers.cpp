#include "companions/mqtt/PostAnswers.h"

#include "companions/mqtt/Payloads.h"
#include "companions/mqtt/Uptime.h"

#include <string>
#include <utility>

namespace kelto::halvek::mqtt {

PostAnswers::PostAnswers(const Topics& names, PostGate& postGate, EventQueue& events, uint64_t& count)
    : topics(names), gate(postGate), queue(events), answered(count) {}

void PostAnswers::Take(std::string_view level, const ReceivedMessage& message) {
    const std::string_view result = gate.Take(level, message.payload, message.isRetained, Uptime());
    if (result != "posted") {
        queue.CountRefusedPost();
    }
    std::string payload = Payloads::PostResult(++answered, result);
    if (answers.size() < most) {
        answers.push_back({topics.PostResult(), std::move(payload), 0, false, Content::Json, std::nullopt});
    }
}

std::optional<Message> PostAnswers::Next() {
    wasAnswer = !answers.empty() && !wasAnswer;
    if (!wasAnswer) {
        return std::nullopt;
    }
    std::optional<Message> answer = std::move(answers.front());
    answers.pop_front();
    return answer;
}

}  // namespace kelto::halvek::mqtt
