#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct sd_bus_message;

namespace kelto::msgbus {

/**
 * One call of a method of one of the camera's services.
 *
 * Provider X has the bus name "com.kelto.X", the object "/com/kelto/X" and the interface "com.kelto.X". Each calling
 * thread has a connection of its own, opened at its first call and closed with the thread, so that calls of different
 * threads never wait for each other. A connection that has died, or to which others have sent more than a little, is
 * replaced before a call; a call that dies under way fails and is never repeated, since the service may have carried it
 * out. What others send to the connection while a call waits is thrown away, message by message.
 *
 * SIGALRM, SIGHUP, SIGINT and SIGTERM are blocked while this object lives: a signal that interrupts the wait for the
 * reply would lose the reply of a request that was carried out. Make it, use it and drop it in one function. Everything
 * throws kelto::osa::Exception with the bus error's name and text; from construction to the reply it takes 5 s at most.
 */
class ProviderCall {
public:
    ProviderCall(const std::string& provider, const char* method);
    ~ProviderCall();
    ProviderCall(const ProviderCall&) = delete;
    ProviderCall& operator=(const ProviderCall&) = delete;

    ProviderCall& Append(const std::string& value);
    ProviderCall& Append(int32_t value);
    ProviderCall& Append(double value);
    ProviderCall& AppendBool(bool value);

    /** Sends the call and waits for its reply. Once. */
    void Send();

    /** The reply's next argument. */
    bool ReadBool();
    int32_t ReadInt();
    std::vector<std::string> ReadStrings();

private:
    /** Blocks the signals that may interrupt the wait, and restores the thread's mask. */
    class SignalBlock {
    public:
        SignalBlock();
        ~SignalBlock();
        SignalBlock(const SignalBlock&) = delete;
        SignalBlock& operator=(const SignalBlock&) = delete;

    private:
        sigset_t savedMask{};
    };

    struct Messages;

    void WaitForReply();

    const SignalBlock signalBlock;
    const std::chrono::steady_clock::time_point deadline;
    const std::unique_ptr<Messages> messages;
};

}  // namespace kelto::msgbus
