#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct sd_journal;

namespace kelto::halvek::ctl {

/** The records of one daemon in the journal, as far as this user may read them. One thread at a time. */
class DaemonJournal {
public:
    struct Record {
        /** As syslog has them: 3 for an Error, 4 for a Warning. */
        int priority = 0;
        std::string text;
        /** Milliseconds since 1970. */
        int64_t time = 0;
    };

    /** Nothing is read of a journal that is not there or hidden. */
    explicit DaemonJournal(int pid);
    ~DaemonJournal();
    DaemonJournal(const DaemonJournal&) = delete;
    DaemonJournal& operator=(const DaemonJournal&) = delete;

    /** Whether it shows what the daemon logs: it has a record of it, or would have one. */
    bool HasRecords();

    /** What came since the last call, or since the first HasRecords. Waits for up to so many milliseconds if there is
     * nothing yet. */
    std::vector<Record> ReadNew(int waitMs);

    /** The last of its records that begins with one of these texts. */
    std::optional<Record> FindLast(const std::vector<std::string>& beginnings);

private:
    std::optional<Record> Current();
    bool HasAny();
    void MatchOnly(int pid);

    struct Closer {
        void operator()(sd_journal* journal) const;
    };

    // Constant after construction.
    int daemon;

    std::unique_ptr<sd_journal, Closer> journal;
};

}  // namespace kelto::halvek::ctl
