#pragma once

#include "tests/support/BusArguments.h"

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct sd_bus;
struct sd_bus_message;

namespace kelto::test {

/** A signal as somebody on the bus sends it. */
struct BusSignal {
    std::string path;
    std::string interface;
    std::string member;
    BusArguments arguments;
    /** A unique name to send it to nobody else; empty for all. */
    std::string destination = {};
    /** Appends what BusArguments has no words for. */
    std::function<void(sd_bus_message*)> append = {};
};

/** The signal of a provider as its service sends it. */
BusSignal ProviderSignal(const std::string& provider, const std::string& member, const BusArguments& arguments);

/** An analytics alert that differs from others by its rule name only. */
BusSignal AlertSignal(const std::string& ruleName);

/**
 * One of the camera's services on the bus, with a thread and a connection of its own: it notes every call and answers
 * as told. It lives as long as the bus; on another bus one makes another. All operations may be called from any thread.
 */
class ScriptedService {
public:
    struct Call {
        std::string interface;
        std::string method;
        std::string signature;
        BusArguments arguments;

        bool operator==(const Call&) const = default;
    };

    /** @param provider X of "com.kelto.X"; empty for somebody who owns no name and answers nothing */
    explicit ScriptedService(const std::string& provider);
    ~ScriptedService();
    ScriptedService(const ScriptedService&) = delete;
    ScriptedService& operator=(const ScriptedService&) = delete;

    /** What a method answers from now on; a method without an answer is unknown to the service. */
    void Answer(const std::string& method, const BusArguments& values);

    /** Has a method fail from now on. */
    void Fail(const std::string& method, const std::string& errorName, const std::string& text);

    /** Keeps all answers back until Release. */
    void Hold();

    /** Gives the answers that were kept back, and all later ones at once. */
    void Release();

    /** All calls so far. */
    std::vector<Call> Calls() const;

    /** Waits for so many calls; false if they did not come within the deadline. */
    bool WaitForCalls(size_t count) const;

    /** Sends signals; returns when the bus has passed them on. */
    void Emit(const std::vector<BusSignal>& signals);
    void Emit(const BusSignal& signal) { Emit(std::vector{signal}); }

    /** Gives the name away, or takes it again. */
    void ReleaseName();
    void RequestName();

private:
    struct Reply {
        BusArguments values;
        std::string errorName;
        std::string errorText;
    };
    struct Connection;

    void Open();
    void TakeCall(sd_bus_message* message);
    void Run();
    void DoOnThread(const std::function<void(sd_bus*)>& deed);
    void Note(sd_bus_message* message);
    void Answer(sd_bus_message* message);
    void Wake() const;

    const std::string provider;
    const int wakeFd;

    // The service's thread's own, but for its construction.
    std::unique_ptr<Connection> connection;

    // Guarded by mutex.
    mutable std::mutex mutex;
    std::map<std::string, Reply> replies;
    std::vector<Call> calls;
    std::list<std::function<void(sd_bus*)>> deeds;
    bool holding = false;
    bool stopping = false;

    std::thread thread;
};

}  // namespace kelto::test
