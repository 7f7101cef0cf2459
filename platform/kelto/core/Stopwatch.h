#pragma once

#include <chrono>

namespace kelto::core {

/** Measures a length of time by the monotonic clock. One thread at a time. */
class Stopwatch {
public:
    /** @param started whether it runs from the beginning */
    explicit Stopwatch(bool started) {
        if (started) {
            Start();
        }
    }

    /** Starts again from zero. */
    void Start() {
        begin = Clock::now();
        running = true;
    }

    /** Keeps the reading as it is now. */
    void Stop() {
        end = Clock::now();
        running = false;
    }

    /** Seconds from the last start to the last stop, or to now while running; 0 before the first start. */
    double GetSeconds() const { return std::chrono::duration<double>((running ? Clock::now() : end) - begin).count(); }

private:
    using Clock = std::chrono::steady_clock;

    Clock::time_point begin{};
    Clock::time_point end{};
    bool running = false;
};

}  // namespace kelto::core
