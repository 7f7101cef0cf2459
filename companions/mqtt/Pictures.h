#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace kelto::halvek::mqtt {

/**
 * The camera's latest picture, as it is published behind events: how large, how often, and for how long at all. It
 * outlives a connection. One thread.
 *
 * Brokers bound the size of a message, and some end the connection instead of saying so. Events are worth more than
 * pictures, so after a few failures in a row there are no more pictures.
 */
class Pictures {
public:
    using Milliseconds = std::chrono::milliseconds;

    /** In bytes. */
    static constexpr size_t largest = 200000;
    /** Between two pictures. */
    static constexpr Milliseconds pause{1000};
    static constexpr int mostFailures = 3;

    /** From when on another one may be taken. */
    Milliseconds NextAt() const { return nextAt; }

    /**
     * The file's bytes. Nothing if it is empty, too large or not to be read, which is said once until there is
     * another reason; nothing at all after too many failures.
     */
    std::optional<std::string> Take(const std::string& path, Milliseconds now);

    /** The connection lives on behind a picture. */
    void NoteSurvived() { failures = 0; }
    /** The broker has refused a picture, or the connection was lost over it. */
    void NoteFailure();

private:
    Milliseconds nextAt{};
    std::string problem;
    int failures = 0;
};

}  // namespace kelto::halvek::mqtt
