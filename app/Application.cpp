#include "app/Application.h"

#include "env/HandlerRegistry.h"
#include "kelto/core/IniFile.h"
#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "kelto/settings/LogManager.h"
#include "util/cmdline.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <exception>
#include <utility>

namespace kelto::halvek {

namespace {

constexpr const char* applicationGroup = "Applications/halvek";
constexpr std::array<int, 4> caughtSignals = {SIGHUP, SIGINT, SIGTERM, SIGALRM};
constexpr char reloadCommand = 'R';
constexpr char stopCommand = 'S';

std::atomic<Application*> currentApplication = nullptr;
std::atomic<int> signalsInFlight = 0;

/** Also reached with no application: system() may put this handler back after the tear-down has removed it. */
extern "C" void OnSignal(int signal) {
    const int savedErrno = errno;
    ++signalsInFlight;
    if (Application* const application = currentApplication) {
        application->HandleSignal(signal);
    }
    --signalsInFlight;
    errno = savedErrno;
}

void SetSignalHandlers(sighandler_t handler) {
    for (const int signal : caughtSignals) {
        ::signal(signal, handler);
    }
}

void InstallSignalHandlers() {
    SetSignalHandlers(OnSignal);
}

void RemoveSignalHandlers() {
    SetSignalHandlers(SIG_DFL);
}

/** Returns when no signal handler on another thread can still be using the application. */
void ForgetCurrentApplication() {
    currentApplication = nullptr;
    while (signalsInFlight != 0) {
        sched_yield();
    }
}

}  // namespace

// The public constructor delegates to this one: once it is through, an exception there runs the destructor, so that a
// failed start is torn down in the same order as a running daemon.
Application::Application(EventMonitor::SourceFactory createSource)
    : logger(&core::Logger::GetLogger("halvek")),
      settingsClient(settings::OperationMode::Daemon),
      eventMonitor(&HandlerRegistry::Instance(), std::move(createSource)) {}

Application::Application(int argc, char** argv, EventMonitor::SourceFactory createSource)
    : Application(std::move(createSource)) {
    logManager = std::make_unique<settings::LogManager>(&settingsClient, applicationGroup);
    ParseCommandLine(argc, argv);
    settingsGroups.insert(std::string(applicationGroup) + "*");
    settingsGroups.insert("Events/*");
    Reload();
    CreateSelfPipe();
    currentApplication = this;
    InstallSignalHandlers();
}

Application::~Application() {
    RemoveSignalHandlers();
    ForgetCurrentApplication();
    CloseSelfPipe();
    logger = nullptr;
    logManager.reset();
}

void Application::ParseCommandLine(int argc, char** argv) {
    const cmdline_option table[] = {{nullptr, 0, false, nullptr}};
    for (auto result = static_cast<int16_t>(cmdline_getopt(argc, argv, table)); result >= 0;
         result = static_cast<int16_t>(cmdline_getopt(argc, argv, table))) {
        if (result == '?') {
            cmdline_usage(table, "cmdline", 0);
            throw osa::Exception("unknown option");
        }
    }
}

void Application::CreateSelfPipe() {
    if (pipe(pipeFds.data()) != 0) {
        pipeFds = {-1, -1};
        throw osa::Exception("pipe failed: %s", std::strerror(errno));
    }
    // A descriptor that fits no fd_set would corrupt the stack.
    const int largest = *std::max_element(pipeFds.begin(), pipeFds.end());
    if (largest >= FD_SETSIZE) {
        throw osa::Exception("pipe failed: descriptor %d is too large for select", largest);
    }
    fcntl(pipeFds[1], F_SETFL, O_NONBLOCK);
}

void Application::CloseSelfPipe() {
    for (int& fd : pipeFds) {
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
    }
}

void Application::HandleSignal(int signal) {
    logger->Debug("signal caught: %d", signal);
    char command = '\0';
    if (signal == SIGHUP) {
        command = reloadCommand;
    } else if (signal == SIGINT || signal == SIGTERM) {
        command = stopCommand;
    } else {
        return;
    }
    // A full pipe drops the command: as many as it holds are waiting already.
    static_cast<void>(!write(pipeFds[1], &command, 1));
}

void Application::Run() {
    logger->Information("Dropping to run state");
    try {
        WaitForCommands();
    } catch (const std::exception& exception) {
        logger->Error("%s", exception.what());
        throw;
    }
    logger->Information("run complete");
}

void Application::WaitForCommands() {
    bool done = false;
    while (!done) {
        if (!WaitForInput()) {
            continue;
        }
        // Looked up anew, for that brings the log's clock up to date: it may have been changed since the last record.
        const core::Logger& upToDate = core::Logger::GetLogger("halvek");
        char command = '\0';
        static_cast<void>(!read(pipeFds[0], &command, 1));
        upToDate.Information("got: '%c' (%d)", command, command);
        if (command == reloadCommand) {
            Reload();
        } else {
            logger->Information("shutting down event monitor");
            done = true;
        }
    }
}

bool Application::WaitForInput() const {
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(pipeFds[0], &readSet);
    const int ready = select(pipeFds[0] + 1, &readSet, nullptr, nullptr, nullptr);
    if (ready < 0 && errno != EINTR) {
        throw osa::Exception("select failed");
    }
    return ready > 0;
}

void Application::Reload() {
    try {
        core::IniFile ini;
        settingsClient.GetSettings(settingsGroups, ini);
        eventMonitor.Configure(ini);
    } catch (const std::exception& exception) {
        logger->Error("Error reloading, invalid configuration: %s", exception.what());
    } catch (...) {
        throw osa::Exception("invalid configuration");
    }
}

}  // namespace kelto::halvek
