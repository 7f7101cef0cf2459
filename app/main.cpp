#include "app/Application.h"
#include "kelto/core/Logger.h"

#include <systemd/sd-daemon.h>

#include <cstdio>
#include <exception>

namespace {

void RunApplication(int argc, char** argv) {
    kelto::halvek::Application application(argc, argv);
    sd_notify(0, "READY=1");
    application.Run();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        RunApplication(argc, argv);
        kelto::core::Logger::Shutdown();
        return 0;
    } catch (const std::exception& exception) {
        kelto::core::Logger::GetLogger("halvek").Warning("Error halvek Main: %s", exception.what());
        std::fprintf(stderr, "Error halvek Main: %s\n", exception.what());
    } catch (...) {
        std::fputs("Error halvek Main: unknown exception, doh!\n", stderr);
    }
    sd_notify(0, "ERRNO=5");
    return 1;
}
