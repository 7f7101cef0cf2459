#pragma once

#include "camera/runtime/Timer.h"
#include "companions/common/UniqueFd.h"

#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kelto::vcam {
class EventLoop;
}

namespace kelto::page {

/**
 * Runs a program to its end, without waiting for it. One at a time, and everything from the loop.
 *
 * What it writes goes into files in memory, which are read when it has ended: so a program that writes much, or closes
 * its output and lives on, needs no thought. One that takes too long is killed.
 */
class Errand {
public:
    struct Outcome {
        std::string problem;     ///< why it did not run to its end; then all else says nothing
        int status = 0;          ///< its exit status
        std::string output;      ///< cut behind 1 MiB
        std::string complaints;  ///< its standard error, cut behind 4 KiB
    };
    using Callback = std::function<void(const Outcome& outcome)>;

    /** Blocks SIGCHLD, which the loop takes from then on. */
    explicit Errand(vcam::EventLoop& eventLoop);
    /** Kills a program that is under way; its callback does not come any more. */
    ~Errand();
    Errand(const Errand&) = delete;
    Errand& operator=(const Errand&) = delete;

    bool IsUnderWay() const { return callback != nullptr; }

    /**
     * Starts a program, while none is under way. The callback comes once, from the loop and never before this returns;
     * it may run the next one, and must not throw.
     *
     * @param words the program, which is looked for in PATH, and its arguments
     */
    void Run(std::vector<std::string> words, Callback done);

private:
    struct Unref {
        void operator()(sd_event_source* added) const { sd_event_source_disable_unref(added); }
    };

    static int OnEnd(sd_event_source*, const siginfo_t* end, void* self);

    /** Returns an errno, or 0. */
    int Start(std::vector<std::string>& words);
    int Watch();
    void End();
    void Finish(const Outcome& outcome);
    Outcome OutcomeOf(const siginfo_t& end) const;

    vcam::EventLoop& loop;
    vcam::Timer deadline;
    Callback callback;
    std::string name;
    pid_t child = -1;
    bool isOverdue = false;
    companion::UniqueFd output;
    companion::UniqueFd complaints;
    std::unique_ptr<sd_event_source, Unref> source;
};

}  // namespace kelto::page
