#pragma once

#include <cstddef>
#include <string>

namespace kelto::test {

/**
 * A named pipe with both ends open, so that neither side waits for the other and nothing in it is lost. It is made if
 * it is not there yet, and removed with the object.
 */
class Fifo {
public:
    explicit Fifo(const std::string& fifoPath);
    ~Fifo();
    Fifo(const Fifo&) = delete;
    Fifo& operator=(const Fifo&) = delete;

    const std::string& GetPath() const { return path; }

    /** Writes all of the text at once; throws if the pipe does not take it. */
    void Write(const std::string& text) const;

    /** Writes until the pipe takes no more byte. */
    void Fill() const;

    /** Takes out all that waits in the pipe. */
    std::string Read() const;

    /** How many bytes wait in the pipe. */
    size_t CountWaiting() const;

    /** Sets how many bytes the pipe holds, at least a page. */
    void SetCapacity(size_t bytes) const;

private:
    const std::string path;
    const int fd;
};

}  // namespace kelto::test
