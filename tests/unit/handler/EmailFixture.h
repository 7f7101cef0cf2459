#pragma once

#include "event/TimerEvent.h"
#include "handler/EmailEventHandler.h"
#include "tests/support/Base64.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MailText.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace kelto::halvek::handler {

/** A body without the line end that every mail gets. */
inline std::string TextOf(const test::MailText& part) {
    const std::string& body = part.GetBody();
    return body.ends_with('\n') ? body.substr(0, body.size() - 1) : body;
}

/** The mail program is a script that keeps what it gets; settings, snapshot and shell are real. */
class EmailFixture : public ::testing::Test {
protected:
    EmailFixture() { BeMailProgram("echo \"$0 $*\" >$folder/call; cat >$folder/mail.$$"); }

    /** What the mail program does; $folder stands for the test's folder. */
    void BeMailProgram(const std::string& script) const {
        std::filesystem::create_directory(folder.PathOf("bin"));
        folder.Write("bin/esmtp", "#!/bin/sh\nfolder=" + folder.GetPath() + "\n" + script + "\n");
        chmod(folder.PathOf("bin/esmtp").c_str(), 0755);
    }

    void SetSnapshotPath(const std::string& path) const {
        folder.Write("settings.ini", "[Video/Quickview]\nSnapshotPath=" + path + "\n");
    }

    /** Configures with the log cleared before. */
    void Configure(const core::IniFile::Group& group) {
        log.Clear();
        handler.Configure(group);
    }

    /** One action on the calling thread. */
    void PerformAction(const Event::Properties& properties = {}) {
        event::TimerEvent event(properties);
        handler.PerformAction(event);
    }

    /** One action with the log cleared before; in a thread of its own, for what it leaves on its thread. */
    void Act(const Event::Properties& properties = {{"eventType", "Test"}}) {
        log.Clear();
        std::thread([&] { PerformAction(properties); }).join();
    }

    std::vector<std::string> Mails() const {
        std::vector<std::string> mails;
        for (const std::string& file : MailFiles()) {
            mails.push_back(test::ReadWholeFile(file));
        }
        return mails;
    }

    /** The one mail that was given to the program; it is forgotten. */
    test::MailText TakeMail() {
        const std::vector<std::string> mails = Mails();
        EXPECT_THAT(mails, SizeIs(1));
        ForgetMails();
        return test::MailText(mails.empty() ? "" : mails.front());
    }

    void ForgetMails() const {
        for (const std::string& file : MailFiles()) {
            std::filesystem::remove(file);
        }
    }

    const test::TempDir folder;
    const test::EnvironmentVariable programs{"PATH", folder.PathOf("bin") + ":" + std::getenv("PATH")};
    const test::EnvironmentVariable settings{"KELTO_SETTINGS", folder.PathOf("settings.ini")};
    test::LogCapture log;
    SnapshotLookUp lookUp = LookUpSnapshotPath;
    EmailEventHandler handler{[this] { return lookUp(); }};

private:
    std::vector<std::string> MailFiles() const {
        std::vector<std::string> files;
        for (const std::filesystem::directory_entry& entry : std::filesystem::directory_iterator(folder.GetPath())) {
            if (entry.path().filename().string().starts_with("mail.")) {
                files.push_back(entry.path());
            }
        }
        return files;
    }
};

}  // namespace kelto::halvek::handler
