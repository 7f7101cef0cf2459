#pragma once

#include "kelto/osa/UniqueFd.h"

#include <string>

namespace kelto::test {

/** A unix socket that lets others connect and never says a word. */
class SilentSocket {
public:
    explicit SilentSocket(const std::string& socketPath);
    ~SilentSocket();
    SilentSocket(const SilentSocket&) = delete;
    SilentSocket& operator=(const SilentSocket&) = delete;

private:
    const std::string path;
    const osa::UniqueFd fd;
};

}  // namespace kelto::test
