#include "camera/runtime/EventLoop.h"
#include "camera/runtime/Failure.h"
#include "companions/page/ListeningSocket.h"
#include "companions/page/Options.h"
#include "companions/page/Page.h"
#include "companions/page/Token.h"

#include <systemd/sd-daemon.h>

#include <csignal>
#include <cstdio>
#include <exception>

namespace {

using kelto::page::ListeningSocket;
using kelto::page::Options;
using kelto::page::Page;

enum ExitStatus : int { Done = 0, Misused = 2, Failed = 3 };

void WarnOfStrangers(const ListeningSocket& socket) {
    if (!socket.IsLoopback()) {
        std::fputs(
            "kelto-vcam-page: everybody who reaches this address and calls it by a name of --host can drive the "
            "camera and see its picture and every event\n",
            stderr);
    }
}

void Announce(const ListeningSocket& socket) {
    std::printf("%s\n", socket.Url().c_str());
    std::fflush(stdout);
    sd_notify(0, "READY=1");
}

int Serve(const Options& options) {
    kelto::vcam::EventLoop loop;
    // A browser that goes while it is written to is an error of that write, and no more.
    std::signal(SIGPIPE, SIG_IGN);
    const ListeningSocket socket(options.address, options.port);
    WarnOfStrangers(socket);
    const Page page(loop, socket.Get(), options, kelto::page::MakeToken(), [&socket] { Announce(socket); });
    if (!page.EventProblem().empty()) {
        std::fprintf(stderr, "kelto-vcam-page: no events are shown: %s\n", page.EventProblem().c_str());
    }
    return loop.Run();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const Options options(argc, argv);
        switch (options.wish) {
            case Options::Wish::Help:
                std::fputs(Options::Help(), stdout);
                return Done;
            case Options::Wish::Version:
                std::puts("kelto-vcam-page " KELTO_VCAM_PAGE_VERSION);
                return Done;
            case Options::Wish::Run:
                return Serve(options);
        }
    } catch (const kelto::page::UsageError& error) {
        std::fprintf(stderr, "kelto-vcam-page: %s\n", error.what());
        return Misused;
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "kelto-vcam-page: %s\n", exception.what());
    }
    return Failed;
}
