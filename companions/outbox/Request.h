#pragma once

#include "companions/common/UniqueFd.h"
#include "companions/outbox/FieldText.h"

#include <chrono>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kelto::halvek::outbox {

/** The service cannot be asked: it is not there, does not let us, or says nothing. */
class Unreachable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/**
 * A talk with the service over its socket, for those who ask. What is asked are lines key=value and an empty one. One
 * thread.
 */
class Request {
public:
    using Clock = std::chrono::steady_clock;

    /** Throws Unreachable. */
    Request(const std::string& socketPath, std::chrono::milliseconds patience);

    /** Sends it all, with a descriptor unless that is -1. Throws Unreachable. */
    void Send(std::string_view text, int attached = -1);

    /** The next line without its end; empty at the end of all. Throws Unreachable, also if not all was listened to. */
    std::string ReadLine();

    /** What comes until the service closes. Throws Unreachable. */
    std::string ReadAll();

private:
    void WaitFor(short events);
    bool Receive();

    companion::UniqueFd connection;
    Clock::time_point deadline;
    std::string received;
};

}  // namespace kelto::halvek::outbox
