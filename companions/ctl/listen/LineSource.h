#pragma once

#include <string>

namespace kelto::halvek::ctl {

/** Something beside an output pipe that a relay hands on lines of. One thread at a time. */
class LineSource {
public:
    LineSource() = default;
    virtual ~LineSource() = default;
    LineSource(const LineSource&) = delete;
    LineSource& operator=(const LineSource&) = delete;

    /** Readable when there is something to take. */
    virtual int Descriptor() const = 0;

    /** The lines of what has come since the last call, each with its line break. */
    virtual std::string Take() = 0;
};

}  // namespace kelto::halvek::ctl
