#include "companions/ctl/live/PipeState.h"

#include "companions/common/UniqueFd.h"
#include "companions/ctl/live/Proc.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace kelto::halvek::ctl {

namespace {

/** Bytes; an event has its stamps, its type twice, and what stands between them. */
constexpr int64_t smallestEvent = 100;

std::string ModeText(mode_t mode) {
    constexpr const char* letters = "rwxrwxrwx";
    std::string text = "p";
    for (unsigned bit = 0; bit < 9; ++bit) {
        text.push_back((mode & (0400U >> bit)) != 0 ? letters[bit] : '-');
    }
    if ((mode & S_ISVTX) != 0) {
        text.back() = text.back() == 'x' ? 't' : 'T';
    }
    return text;
}

std::string UserName(uid_t uid) {
    const passwd* const entry = getpwuid(uid);
    return entry == nullptr ? std::to_string(uid) : entry->pw_name;
}

std::string GroupName(gid_t gid) {
    const ::group* const entry = getgrgid(gid);
    return entry == nullptr ? std::to_string(gid) : entry->gr_name;
}

/** As a writer first: a reader who comes and goes would let others post into a pipe that nobody reads. */
companion::UniqueFd OpenToLook(const std::string& path) {
    companion::UniqueFd pipe(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
    return pipe.IsOpen() ? std::move(pipe)
                         : companion::UniqueFd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
}

/** Every page of the pipe holds something: to a writer it is full, however many bytes that are. */
bool HasNoPageLeft(const companion::UniqueFd& pipe) {
    const bool isWriter = (fcntl(pipe.Get(), F_GETFL) & O_ACCMODE) == O_WRONLY;
    pollfd writable{pipe.Get(), POLLOUT, 0};
    return isWriter && poll(&writable, 1, 0) == 0;
}

void Fill(PipeState& state) {
    const companion::UniqueFd pipe = OpenToLook(state.path);
    struct stat status {};
    int waiting = 0;
    if (!pipe.IsOpen() || fstat(pipe.Get(), &status) != 0 || !S_ISFIFO(status.st_mode) ||
        ioctl(pipe.Get(), FIONREAD, &waiting) != 0) {
        return;
    }
    state.bytesWaiting = waiting;
    state.hasNoPageLeft = HasNoPageLeft(pipe);
    if (const int capacity = fcntl(pipe.Get(), F_GETPIPE_SZ); capacity > 0) {
        state.capacity = capacity;
    }
}

/** Whether a descriptor is one that reads. */
bool Reads(int pid, const std::string& number) {
    const std::string flags = Proc::Field(Proc::Read(Proc::Path(pid, "fdinfo/") + number).value_or(""), "flags");
    constexpr int octal = 8;
    return (std::strtol(flags.c_str(), nullptr, octal) & O_ACCMODE) != O_WRONLY;
}

bool HasOpen(int pid, const std::vector<std::string>& numbers, const struct stat& pipe) {
    for (const std::string& number : numbers) {
        struct stat theirs {};
        if (stat((Proc::Path(pid, "fd/") + number).c_str(), &theirs) == 0 && theirs.st_dev == pipe.st_dev &&
            theirs.st_ino == pipe.st_ino && Reads(pid, number)) {
            return true;
        }
    }
    return false;
}

void FindReaders(PipeState& state, const struct stat& pipe, int leftOut) {
    for (const int pid : Proc::Processes()) {
        if (pid == leftOut) {
            continue;
        }
        const std::optional<std::vector<std::string>> numbers = Proc::Names(Proc::Path(pid, "fd"));
        state.hasHidden = state.hasHidden || (!numbers && !Proc::Name(pid).empty());
        if (numbers && HasOpen(pid, *numbers, pipe)) {
            state.readers.push_back({pid, Proc::Name(pid)});
        }
    }
}

}  // namespace

bool PipeState::IsFull() const {
    return hasNoPageLeft || (bytesWaiting && capacity && *bytesWaiting + smallestEvent > *capacity);
}

std::optional<PipeState> PipeState::Of(const std::string& path, int leftOut) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode)) {
        return std::nullopt;
    }
    PipeState state;
    state.path = path;
    state.mode = ModeText(status.st_mode);
    state.owner = UserName(status.st_uid);
    state.group = GroupName(status.st_gid);
    Fill(state);
    FindReaders(state, status, leftOut);
    return state;
}

}  // namespace kelto::halvek::ctl
