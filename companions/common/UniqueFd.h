#pragma once

#include <unistd.h>

#include <utility>

namespace kelto::companion {

/** Owns a descriptor and closes it at its end. One thread at a time. */
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int opened) : descriptor(opened) {}
    UniqueFd(UniqueFd&& other) noexcept : descriptor(std::exchange(other.descriptor, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        Reset(std::exchange(other.descriptor, -1));
        return *this;
    }
    ~UniqueFd() { Reset(); }

    /** -1 if there is none. */
    int Get() const { return descriptor; }
    bool IsOpen() const { return descriptor >= 0; }

    /** Closes what it owns and owns the other one from then on. */
    void Reset(int other = -1) {
        if (const int old = std::exchange(descriptor, other); old >= 0) {
            close(old);
        }
    }

private:
    int descriptor = -1;
};

}  // namespace kelto::companion
