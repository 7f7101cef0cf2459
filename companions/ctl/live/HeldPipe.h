#pragma once

#include "companions/common/UniqueFd.h"

#include <string>

namespace kelto::halvek::ctl {

/**
 * Keeps a named pipe open in place of the one who reads it, so that those who write to it find it open and nothing in
 * it is lost. It takes nothing out. While it is held the pipe has room for 1 MiB.
 */
class HeldPipe {
public:
    /** Throws Failure if it cannot be opened. */
    explicit HeldPipe(const std::string& path);
    ~HeldPipe();
    HeldPipe(const HeldPipe&) = delete;
    HeldPipe& operator=(const HeldPipe&) = delete;

private:
    companion::UniqueFd pipe;
    int capacity = 0;
};

}  // namespace kelto::halvek::ctl
