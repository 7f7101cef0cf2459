#include "companions/common/EventReader.h"
#include "companions/common/PostedEvent.h"
#include "companions/mqtt/Discovery.h"
#include "companions/mqtt/Payloads.h"
#include "companions/mqtt/PostGate.h"
#include "companions/mqtt/Topics.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::halvek::mqtt {

namespace {

using companion::PostedEvent;

/** Ends the process, and so fails the run, if something does not hold. */
void Require(bool condition, const char* text) {
    if (!condition) {
        std::cerr << "does not hold: " << text << std::endl;
        std::abort();
    }
}

void CheckTopic(const std::optional<std::string>& topic, size_t levels) {
    if (!topic) {
        return;
    }
    constexpr std::string_view signs = "._-%/";
    Require(topic->size() <= Topics::longest, "a topic is not too long");
    Require(std::count(topic->begin(), topic->end(), '/') == static_cast<long>(levels - 1), "a topic has its levels");
    Require(std::all_of(topic->begin(), topic->end(),
                        [&](char byte) {
                            return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
                                   (byte >= '0' && byte <= '9') || signs.find(byte) != std::string_view::npos;
                        }),
            "a topic is made of what every broker takes");
}

/** What the bytes are if the daemon writes them into our pipe. */
void CheckPublished(std::string_view bytes) {
    const Topics topics("halvek", "cam1");
    const Identity identity{"5297d7b4aaaabbbbccccddddeeeeffff", "2026-11-21T14:05:09.123Z", "host"};
    companion::EventReader reader([&](const companion::ReceivedEvent& received) {
        QueuedEvent event;
        event.event = received;
        CheckTopic(topics.Event(received.type), 4);
        CheckTopic(topics.Alarm(received.type, received.type), 5);
        const auto json = nlohmann::json::parse(Payloads::Event(event, identity, std::chrono::milliseconds(1), false));
        Require(json["type"] == received.type, "the type is in the payload as it is");
        Require(json["props"].size() <= received.properties.size(), "the properties are in the payload");
        for (const auto& [key, value] : received.properties) {
            Require(json["props"].contains(key), "each property is in the payload");
        }
        const CameraFacts facts{{received.type}, {{"Local", received.type}}};
        Require(nlohmann::json::parse(Discovery::Payload({}, facts))["cmps"].is_object(), "a description is JSON");
    });
    reader.Take(bytes, std::chrono::milliseconds(0));
    reader.CloseOverdue(std::chrono::hours(1));
}

/** The daemon's pipe, in a folder that goes with the process. */
class DaemonsPipe {
public:
    DaemonsPipe() {
        Require(mkdtemp(folder.data()) != nullptr, "there is a folder");
        Require(mkfifo(Path().c_str(), 0600) == 0, "there is a pipe");
        reader = open(Path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }

    ~DaemonsPipe() {
        close(reader);
        unlink(Path().c_str());
        rmdir(folder.c_str());
    }

    DaemonsPipe(const DaemonsPipe&) = delete;
    DaemonsPipe& operator=(const DaemonsPipe&) = delete;

    std::string Path() const { return folder + "/pipe"; }

    std::string Posted() const {
        std::array<char, 65536> bytes{};
        const ssize_t length = read(reader, bytes.data(), bytes.size());
        return {bytes.data(), length < 0 ? 0 : static_cast<size_t>(length)};
    }

private:
    std::string folder = "/tmp/mqtt-messages.XXXXXX";
    int reader = -1;
};

/** What the bytes are if somebody posts them over the broker. */
void CheckPosted(std::string_view payload) {
    static const DaemonsPipe pipe;
    PostGate gate(pipe.Path());
    gate.SetLists({"Doorbell"}, {"2"});
    const std::string_view result = gate.Take("Doorbell", payload, false, std::chrono::milliseconds(0));
    const std::vector<PostedEvent> events = PostedEvent::ParseAll(pipe.Posted());
    Require(events.size() == (result == "posted" ? 1U : 0U), "what is posted is one event");
    for (const PostedEvent& event : events) {
        const auto& properties = event.Properties();
        Require(event.Type() == "Doorbell", "it has the type of the topic");
        Require(
            std::count(properties.begin(), properties.end(), std::pair<std::string, std::string>("via", "mqtt")) == 1,
            "it says which way it came");
    }
}

}  // namespace

}  // namespace kelto::halvek::mqtt

/** Whatever the daemon writes makes legal topics and JSON; whatever is posted is one event of ours, or none. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kelto::halvek::mqtt;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    CheckPublished(bytes);
    CheckPosted(bytes);
    static_cast<void>(Payloads::ReadInfo(bytes));
    static_cast<void>(Discovery::ComponentsIn(bytes));
    return 0;
}
