#include "tests/support/Fifo.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace kelto::test {

namespace {

int OpenBothEnds(const std::string& path) {
    static_cast<void>(mkfifo(path.c_str(), 0600));
    const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("cannot open " + path);
    }
    return fd;
}

}  // namespace

Fifo::Fifo(const std::string& fifoPath) : path(fifoPath), fd(OpenBothEnds(path)) {}

Fifo::~Fifo() {
    close(fd);
    unlink(path.c_str());
}

void Fifo::Write(const std::string& text) const {
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::runtime_error(path + " does not take " + std::to_string(text.size()) + " bytes");
    }
}

void Fifo::Fill() const {
    const std::array<char, 4096> block{};
    while (write(fd, block.data(), block.size()) > 0 || write(fd, block.data(), 1) > 0) {
    }
}

std::string Fifo::Read() const {
    std::string text;
    std::array<char, 4096> buffer{};
    ssize_t count = 0;
    while ((count = read(fd, buffer.data(), buffer.size())) > 0) {
        text.append(buffer.data(), static_cast<size_t>(count));
    }
    return text;
}

size_t Fifo::CountWaiting() const {
    int count = 0;
    if (ioctl(fd, FIONREAD, &count) != 0) {
        throw std::runtime_error("cannot look into " + path);
    }
    return static_cast<size_t>(count);
}

void Fifo::SetCapacity(size_t bytes) const {
    if (fcntl(fd, F_SETPIPE_SZ, static_cast<int>(bytes)) < 0) {
        throw std::runtime_error("cannot resize " + path);
    }
}

}  // namespace kelto::test
