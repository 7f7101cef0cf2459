#include "bench/load/Channel.h"

#include "bench/load/Clock.h"
#include "bench/load/Writer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>

namespace kelto::halvek::bench {

namespace {

constexpr int outputPipeSize = 1 << 20;
constexpr size_t pageSize = 4096;
constexpr int pauseMs = 100;

void MakeFifo(const std::string& path) {
    if (mkfifo(path.c_str(), 0600) != 0) {
        ThrowSystemError(path);
    }
}

/** Open for writing too, so that it is no end of file when the program closes it. */
int MakeOutput(const std::string& folder, const std::string& path) {
    mkdir(folder.c_str(), 0755);
    MakeFifo(path);
    const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        ThrowSystemError(path);
    }
    fcntl(fd, F_SETPIPE_SZ, outputPipeSize);
    return fd;
}

std::string MakeInput(const std::string& path) {
    MakeFifo(path);
    return path;
}

}  // namespace

Channel::Channel(const std::string& base, const std::vector<std::string>& command)
    : inputPath(MakeInput(base + ".pipe")),
      outputPath(base + "/bench.MotionDetection"),
      output(MakeOutput(base, outputPath)),
      program(command) {
    OpenInput();
}

Channel::~Channel() {
    close(output);
    close(input);
    unlink(outputPath.c_str());
    unlink(inputPath.c_str());
}

/** The open fails until the program has the pipe open. */
void Channel::OpenInput() {
    const int64_t deadline = Now() + patienceNs;
    while ((input = open(inputPath.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0) {
        if (errno != ENXIO || program.HasEnded() || Now() > deadline) {
            throw std::runtime_error("the program does not open " + inputPath);
        }
        SleepUntil(Now() + nsPerMs);
    }
}

uint64_t Channel::OutputCapacity() const {
    // A block that does not fit into what is left of a page starts a new one.
    return static_cast<uint64_t>(fcntl(output, F_GETPIPE_SZ)) / pageSize * (pageSize / BlockSize());
}

bool Channel::TryWrite(const std::string& events) const {
    if (write(input, events.data(), events.size()) == static_cast<ssize_t>(events.size())) {
        return true;
    }
    pollfd ready{input, POLLOUT, 0};
    poll(&ready, 1, pauseMs);
    return false;
}

void Channel::Pump(uint64_t events) {
    const uint64_t end = checker.Received() + events;
    Writer writer(*this, checker.Received(), end);
    while (checker.Received() < end) {
        Drain();
        writer.SetReceived(checker.Received());
    }
}

int64_t Channel::PassOne() {
    const uint64_t number = checker.Received();
    std::string event;
    AppendEvent(event, number);
    const int64_t begin = Now();
    while (!TryWrite(event)) {
        ExpectProgress(begin);
    }
    while (checker.Received() == number) {
        Drain();
    }
    return Now() - begin;
}

void Channel::Finish() {
    const uint64_t events = checker.Received();
    program.Stop();
    TakeWhatIsThere();
    checker.ExpectEnd(events);
}

/** Waits for output. */
void Channel::Drain() {
    const int64_t begin = Now();
    pollfd ready{output, POLLIN, 0};
    while (poll(&ready, 1, pauseMs) != 1) {
        ExpectProgress(begin);
    }
    TakeWhatIsThere();
}

void Channel::ExpectProgress(int64_t since) {
    if (program.HasEnded() || Now() > since + patienceNs) {
        throw std::runtime_error("event " + std::to_string(checker.Received()) + " never came out" +
                                 (program.HasEnded() ? ": the program has ended" : ""));
    }
}

void Channel::TakeWhatIsThere() {
    std::array<char, 1 << 16> buffer;
    const ssize_t count = read(output, buffer.data(), buffer.size());
    if (count > 0) {
        checker.Take({buffer.data(), static_cast<size_t>(count)});
    }
}

}  // namespace kelto::halvek::bench
