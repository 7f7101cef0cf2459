#pragma once

namespace kelto::test {

/** Takes root's right to pass over file permissions from the calling thread for the length of a scope. */
class Unprivileged {
public:
    Unprivileged();
    ~Unprivileged();
    Unprivileged(const Unprivileged&) = delete;
    Unprivileged& operator=(const Unprivileged&) = delete;
};

}  // namespace kelto::test
