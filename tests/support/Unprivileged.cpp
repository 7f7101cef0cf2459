#include "tests/support/Unprivileged.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <system_error>

namespace kelto::test {

namespace {

void Check(bool good, const std::string& what) {
    if (!good) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

using Capabilities = std::array<__user_cap_data_struct, 2>;

/** Sets the capabilities in force to none, or to all that are permitted. */
void SetEffectiveCapabilities(bool all) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    Capabilities capabilities{};
    Check(syscall(SYS_capget, &header, capabilities.data()) == 0, "capget");
    for (auto& part : capabilities) {
        part.effective = all ? part.permitted : 0;
    }
    Check(syscall(SYS_capset, &header, capabilities.data()) == 0, "capset");
}

}  // namespace

Unprivileged::Unprivileged() {
    SetEffectiveCapabilities(false);
}

Unprivileged::~Unprivileged() {
    SetEffectiveCapabilities(true);
}

}  // namespace kelto::test
