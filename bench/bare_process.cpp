// The least that a C++ program with libsystemd holds in memory: tells the service manager that it is ready, and waits.

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <iostream>

int main() {
    sd_notify(0, "READY=1");
    // Without a use of it, the linker would leave the C++ library out.
    std::cout << std::flush;
    pause();
    return 0;
}
