#pragma once

#include "companions/mqtt/Message.h"
#include "companions/mqtt/Settings.h"

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

struct mosquitto;

namespace kelto::halvek::mqtt {

/** Which MQTT it is. */
enum class Protocol { Version311, Version5 };

/** What a connection tells its owner, on the thread that calls it and while it does so. */
class ConnectionObserver {
public:
    virtual ~ConnectionObserver() = default;

    /** The broker has taken us, with 0, or has not, and why. */
    virtual void OnConnected(int reason, const std::string& text) = 0;
    /** The message of that number has arrived at the broker, which has taken it, below 128, or has not. */
    virtual void OnPublished(int number, int reason) = 0;
    virtual void OnMessage(const ReceivedMessage& message) = 0;
};

/** A connection could not be made, or is lost. The text says why. */
class ConnectionError : public std::runtime_error {
public:
    /** What an end means beside that there was one. */
    enum class Kind {
        Ordinary,
        /** The broker has closed the connection without a word before it took us. */
        ClosedEarly,
        /** This one message cannot be sent over any connection to this broker. */
        UnfitMessage,
    };

    explicit ConnectionError(const std::string& text, Kind meaning = Kind::Ordinary)
        : std::runtime_error(text), kind(meaning) {}

    Kind GetKind() const { return kind; }

private:
    Kind kind;
};

/**
 * One connection to the broker, from its making to its end. A new one is made for each attempt.
 *
 * The library connects while its caller waits: with its own way of doing that beside other work it spins at full load
 * when nobody listens. Everything else here waits in Turn only, for as long as the caller says. One thread.
 */
class Connection {
public:
    using Milliseconds = std::chrono::milliseconds;

    static constexpr int keepAlive = 30;  // seconds

    /** Makes the connection's state; nothing is sent yet. Throws ConnectionError if the settings do not work out. */
    Connection(const Settings& settings, Protocol version, const Message& will, ConnectionObserver& owner);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    /** Closes it without a word, which has the broker publish the will. */
    ~Connection();

    /**
     * Connects, which may take as long as the system tries: two minutes where packets get lost. The broker's word comes
     * with Turn. Throws ConnectionError.
     */
    void Open();

    /** Sends a message, and returns the number by which OnPublished will call it. Throws ConnectionError. */
    int Publish(const Message& message);

    /** @param showsRetained whether live messages say if they were to be kept, where the protocol can */
    void Subscribe(const std::string& filter, int qos, bool showsRetained = false);
    void Unsubscribe(const std::string& filter);

    /**
     * Waits until there is something to do, until the descriptor is readable or for so long at most, and does it.
     * Throws ConnectionError when the connection is lost.
     */
    void Turn(int wakeDescriptor, Milliseconds most);

    /** Says goodbye: the broker publishes no will. */
    void Close();

private:
    struct Callbacks;

    void SetUpTls(const Settings& settings);
    void Check(int result, const char* deed);
    [[noreturn]] void Fail(const char* deed, int result);

    // Constant after construction.
    BrokerAddress address;
    Protocol protocol;
    ConnectionObserver& observer;
    std::unique_ptr<mosquitto, void (*)(mosquitto*)> client;

    bool isAccepted = false;
    /** A write has left something behind although the socket was said to be writable. */
    bool wasWriteInVain = false;
    /** What the library or the broker said at the end. */
    int endReason = 0;
};

}  // namespace kelto::halvek::mqtt
