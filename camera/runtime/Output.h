#pragma once

#include <functional>

namespace kelto::vcam {

/** Hears every line that Say prints, without the time before it, as long as it lives. There is one at a time. */
class LineListener {
public:
    using Function = std::function<void(const char* line)>;

    /** @param hear must not throw, nor say anything itself */
    explicit LineListener(Function hear);
    ~LineListener();
    LineListener(const LineListener&) = delete;
    LineListener& operator=(const LineListener&) = delete;
};

/** Prints one line to standard output, with the local time before it, at once. */
void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));

/** Prints one line to standard error, with the program's name before it. */
void Complain(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kelto::vcam
