#include "companions/mqtt/Connection.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace kelto::halvek::mqtt {

namespace {

/** The largest message that a broker may send us, in bytes: far more than we take, so that we can say so. */
constexpr uint32_t largestIncoming = 128 * 1024;
constexpr const char* systemCertificates = "/etc/ssl/certs";
/** The library's own work: it looks after its pings then. */
constexpr Connection::Milliseconds houseKeeping{5000};
/** Until the broker has taken us, and after a write in vain: how long not to ask whether the socket is writable. */
constexpr Connection::Milliseconds writePause{50};

/** Frees a list of properties, and adds to it. */
class Properties {
public:
    Properties() = default;
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;
    ~Properties() { mosquitto_property_free_all(&list); }

    void AddText(int identifier, const char* text) { mosquitto_property_add_string(&list, identifier, text); }
    void AddNumber(int identifier, uint32_t number) { mosquitto_property_add_int32(&list, identifier, number); }
    const mosquitto_property* Get() const { return list; }

private:
    mosquitto_property* list = nullptr;
};

bool IsUnfit(int result) {
    return result == MOSQ_ERR_OVERSIZE_PACKET || result == MOSQ_ERR_PAYLOAD_SIZE || result == MOSQ_ERR_INVAL ||
           result == MOSQ_ERR_MALFORMED_UTF8 || result == MOSQ_ERR_QOS_NOT_SUPPORTED ||
           result == MOSQ_ERR_RETAIN_NOT_SUPPORTED;
}

/** Nothing for a plain word. */
const char* MediaType(Content content) {
    switch (content) {
        case Content::Text:
            return nullptr;
        case Content::Json:
            return "application/json";
        case Content::Jpeg:
            return "image/jpeg";
    }
    return nullptr;
}

/** The library's texts end with a full stop, and some of its errors are the system's. */
std::string Reason(int result) {
    std::string text = result == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(result);
    while (!text.empty() && text.back() == '.') {
        text.pop_back();
    }
    return text;
}

void StartLibrary() {
    static const int started = mosquitto_lib_init();
    static_cast<void>(started);
}

}  // namespace

/** What the library calls, in C. */
struct Connection::Callbacks {
    static void Connected(mosquitto*, void* own, int reason, int, const mosquitto_property*) {
        auto* connection = static_cast<Connection*>(own);
        connection->isAccepted = reason == 0;
        const bool isNew = connection->protocol == Protocol::Version5;
        connection->observer.OnConnected(reason,
                                         isNew ? mosquitto_reason_string(reason) : mosquitto_connack_string(reason));
    }

    static void Disconnected(mosquitto*, void* own, int reason, const mosquitto_property*) {
        static_cast<Connection*>(own)->endReason = reason;
    }

    static void Published(mosquitto*, void* own, int number, int reason, const mosquitto_property*) {
        static_cast<Connection*>(own)->observer.OnPublished(number, reason);
    }

    static void Arrived(mosquitto*, void* own, const mosquitto_message* message, const mosquitto_property*) {
        ReceivedMessage received;
        received.topic = message->topic;
        received.payload.assign(static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen));
        received.isRetained = message->retain;
        static_cast<Connection*>(own)->observer.OnMessage(received);
    }
};

Connection::Connection(const Settings& settings, Protocol version, const Message& will, ConnectionObserver& owner)
    : address(settings.broker), protocol(version), observer(owner), client(nullptr, mosquitto_destroy) {
    StartLibrary();
    client.reset(mosquitto_new(settings.id.c_str(), true, this));
    if (client == nullptr) {
        throw ConnectionError(std::string("Cannot make a client: ") + strerror(errno));
    }
    mosquitto_int_option(client.get(), MOSQ_OPT_PROTOCOL_VERSION,
                         protocol == Protocol::Version5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311);
    mosquitto_int_option(client.get(), MOSQ_OPT_TCP_NODELAY, 1);
    Check(mosquitto_will_set(client.get(), will.topic.c_str(), static_cast<int>(will.payload.size()),
                             will.payload.data(), will.qos, will.isRetained),
          "set the last will");
    if (!settings.user.empty()) {
        const char* password = settings.secretName.empty() ? nullptr : settings.password.c_str();
        Check(mosquitto_username_pw_set(client.get(), settings.user.c_str(), password), "set user and password");
    }
    if (address.usesTls) {
        SetUpTls(settings);
    }
    mosquitto_connect_v5_callback_set(client.get(), Callbacks::Connected);
    mosquitto_disconnect_v5_callback_set(client.get(), Callbacks::Disconnected);
    mosquitto_publish_v5_callback_set(client.get(), Callbacks::Published);
    mosquitto_message_v5_callback_set(client.get(), Callbacks::Arrived);
}

Connection::~Connection() = default;

void Connection::SetUpTls(const Settings& settings) {
    const char* file = settings.caFile.empty() ? nullptr : settings.caFile.c_str();
    const char* folder = settings.caFile.empty() ? systemCertificates : nullptr;
    const char* certificate = settings.certificate.empty() ? nullptr : settings.certificate.c_str();
    const char* key = settings.certificate.empty() ? nullptr : settings.keyFile.c_str();
    Check(mosquitto_tls_set(client.get(), file, folder, certificate, key, nullptr), "set up TLS");
}

void Connection::Open() {
    if (protocol == Protocol::Version5) {
        Properties properties;
        properties.AddNumber(MQTT_PROP_MAXIMUM_PACKET_SIZE, largestIncoming);
        Check(mosquitto_connect_bind_v5(client.get(), address.host.c_str(), address.port, keepAlive, nullptr,
                                        properties.Get()),
              "connect");
    } else {
        Check(mosquitto_connect(client.get(), address.host.c_str(), address.port, keepAlive), "connect");
    }
}

int Connection::Publish(const Message& message) {
    Properties properties;
    if (protocol == Protocol::Version5) {
        if (const char* type = MediaType(message.content); type != nullptr) {
            properties.AddText(MQTT_PROP_CONTENT_TYPE, type);
        }
        if (message.expiry) {
            properties.AddNumber(MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, static_cast<uint32_t>(message.expiry->count()));
        }
    }
    int number = 0;
    const int result =
        mosquitto_publish_v5(client.get(), &number, message.topic.c_str(), static_cast<int>(message.payload.size()),
                             message.payload.data(), message.qos, message.isRetained, properties.Get());
    if (IsUnfit(result)) {
        throw ConnectionError(Reason(result), ConnectionError::Kind::UnfitMessage);
    }
    Check(result, "publish");
    return number;
}

void Connection::Subscribe(const std::string& filter, int qos, bool showsRetained) {
    const bool canShow = showsRetained && protocol == Protocol::Version5;
    Check(mosquitto_subscribe_v5(client.get(), nullptr, filter.c_str(), qos,
                                 canShow ? MQTT_SUB_OPT_RETAIN_AS_PUBLISHED : 0, nullptr),
          "subscribe");
}

void Connection::Unsubscribe(const std::string& filter) {
    Check(mosquitto_unsubscribe(client.get(), nullptr, filter.c_str()), "unsubscribe");
}

void Connection::Turn(int wakeDescriptor, Milliseconds most) {
    const int socket = mosquitto_socket(client.get());
    if (socket < 0) {
        Fail("stay connected", endReason == 0 ? MOSQ_ERR_CONN_LOST : endReason);
    }
    // While TLS is being set up the library has something to write all the time, and waits to read.
    const bool hasToWrite = mosquitto_want_write(client.get());
    const bool pauses = hasToWrite && (!isAccepted || wasWriteInVain);
    std::array<pollfd, 2> polled{{{socket, POLLIN, 0}, {wakeDescriptor, POLLIN, 0}}};
    if (hasToWrite && !pauses) {
        polled[0].events |= POLLOUT;
    }
    Milliseconds patience = std::min(most, pauses ? writePause : houseKeeping);
    patience = std::max(patience, Milliseconds(0));
    poll(polled.data(), polled.size(), static_cast<int>(patience.count()));
    if ((polled[0].revents & ~POLLOUT) != 0) {
        Check(mosquitto_loop_read(client.get(), 1), "read");
    }
    if (mosquitto_socket(client.get()) >= 0 && mosquitto_want_write(client.get())) {
        Check(mosquitto_loop_write(client.get(), 1), "write");
        wasWriteInVain = mosquitto_want_write(client.get());
    }
    Check(mosquitto_loop_misc(client.get()), "stay connected");
}

void Connection::Close() {
    mosquitto_disconnect(client.get());
}

void Connection::Check(int result, const char* deed) {
    if (result != MOSQ_ERR_SUCCESS) {
        Fail(deed, result);
    }
}

void Connection::Fail(const char* deed, int result) {
    const bool isLost = result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_NO_CONN;
    const auto kind = isLost && !isAccepted ? ConnectionError::Kind::ClosedEarly : ConnectionError::Kind::Ordinary;
    // What the broker says when it ends a connection is more than that it is lost.
    const bool hasBrokersReason = isLost && endReason >= MQTT_RC_UNSPECIFIED;
    const std::string reason = hasBrokersReason ? mosquitto_reason_string(endReason) : Reason(result);
    throw ConnectionError(std::string("Cannot ") + deed + ": " + reason, kind);
}

}  // namespace kelto::halvek::mqtt
