#pragma once

#include "app/Application.h"
#include "source/SourceFactory.h"
#include "tests/fakes/ProbeSource.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Journal.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <fcntl.h>
#include <getopt.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace kelto::halvek {

using SignalHandler = void (*)(int);

/** The actions of the four signals that the daemon catches. */
inline std::vector<SignalHandler> Dispositions() {
    std::vector<SignalHandler> handlers;
    for (const int number : {SIGHUP, SIGINT, SIGTERM, SIGALRM}) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        handlers.push_back(action.sa_handler);
    }
    return handlers;
}

/** An application whose sources of the type "Probe" note what happens to them, with settings of its own. */
class ApplicationFixture : public ::testing::Test {
protected:
    ApplicationFixture() {
        setenv("KELTO_SETTINGS", folder.PathOf("settings.ini").c_str(), 1);
        WriteSettings("[Events/Source#1]\nType=Probe\n");
    }

    ~ApplicationFixture() override {
        application.reset();
        unsetenv("KELTO_SETTINGS");
    }

    void WriteSettings(const std::string& text, const std::string& level = "Debug") const {
        folder.Write("settings.ini", "[Applications/halvek]\nLogLevel=" + level + "\n" + text);
    }

    void BreakSettings() const { folder.Write("settings.ini", "no settings\n"); }

    /** Has the source type "Probe" do something. */
    void SetActions(const test::ProbeSource::Actions& newActions) { actions = newActions; }

    void Start(std::vector<std::string> words = {}) {
        words.insert(words.begin(), "halvek");
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        optind = 0;  // A start that failed may have left off in the middle of its options.
        application = std::make_unique<Application>(
            static_cast<int>(words.size()), arguments.data(),
            [this](const std::string& type, HalvekEnv* env) { return CreateSource(type, env); });
    }

    static void Raise(const std::vector<int>& signals) {
        for (const int number : signals) {
            std::raise(number);
        }
    }

    /** Runs the loop, which finds these signals. */
    void RunWith(const std::vector<int>& signals) {
        Raise(signals);
        application->Run();
    }

    /** The descriptor of the pipe to the process itself that is open for that. */
    int PipeEnd(int accessMode) const {
        for (const int fd : test::OpenDescriptors()) {
            struct stat status {};
            fstat(fd, &status);
            if (!std::binary_search(openBefore.begin(), openBefore.end(), fd) && S_ISFIFO(status.st_mode) &&
                (fcntl(fd, F_GETFL) & O_ACCMODE) == accessMode) {
                return fd;
            }
        }
        return -1;
    }

    /** The probe is a source type beside those of the daemon. */
    std::unique_ptr<EventSource> CreateSource(const std::string& type, HalvekEnv* env) {
        return type == "Probe" ? std::make_unique<test::ProbeSource>(journal, "Probe", actions)
                               : CreateEventSource(type, env);
    }

    size_t CountConfigurations() const { return log.Count("Information halvek: Configuring..."); }

    const test::LeftDescriptorsClosed leftDescriptorsClosed;
    const test::TempDir folder;
    test::LogCapture log{core::LogLevel::Debug};
    test::Journal journal;
    test::ProbeSource::Actions actions;
    const std::vector<int> openBefore = test::OpenDescriptors();
    std::unique_ptr<Application> application;
};

}  // namespace kelto::halvek
