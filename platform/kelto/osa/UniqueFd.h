#pragma once

#include <unistd.h>

namespace kelto::osa {

/** Owns one file descriptor and closes it. A negative one stands for none. */
class UniqueFd {
public:
    explicit UniqueFd(int descriptor) noexcept : fd(descriptor) {}
    ~UniqueFd() { Close(); }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    bool IsValid() const noexcept { return fd >= 0; }
    int Get() const noexcept { return fd; }

    /** Closes early; false if the system reports a failure, for instance a write that could not be finished. */
    bool Close() noexcept {
        const int closing = fd;
        fd = -1;
        return closing < 0 || ::close(closing) == 0;
    }

private:
    int fd;
};

}  // namespace kelto::osa
