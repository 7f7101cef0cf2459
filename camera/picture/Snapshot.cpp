#include "camera/picture/Snapshot.h"

#include "camera/device/Head.h"
#include "camera/picture/Jpeg.h"
#include "camera/picture/Picture.h"
#include "camera/runtime/EventLoop.h"
#include "camera/runtime/Failure.h"
#include "camera/runtime/Output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace kelto::vcam {

namespace {

constexpr uint64_t interval = 1'000'000;  // microseconds

[[noreturn]] void FailToWrite(const std::string& path, int reason) {
    throw Failure("Cannot write " + path + ": " + std::strerror(reason));
}

/** Writes and closes; 0 or what errno was. */
int WriteAndClose(int descriptor, const std::vector<uint8_t>& content) {
    size_t done = 0;
    int reason = 0;
    while (done < content.size() && reason == 0) {
        const ssize_t written = write(descriptor, content.data() + done, content.size() - done);
        if (written < 0) {
            reason = errno;
        } else {
            done += static_cast<size_t>(written);
        }
    }
    if (close(descriptor) != 0 && reason == 0) {
        reason = errno;
    }
    return reason;
}

}  // namespace

Snapshot::Snapshot(EventLoop& eventLoop, const Head& cameraHead, const std::string& snapshotPath)
    : loop(eventLoop), head(cameraHead), path(snapshotPath), timer(loop), due(EventLoop::Now()) {
    const size_t nameStart = path.rfind('/') + 1;
    folder = nameStart == 0 ? "." : path.substr(0, nameStart);
    hiddenPath = path.substr(0, nameStart) + ".kelto-vcam-" + std::to_string(getpid());
    if (mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) {
        throw Failure("Cannot make the folder " + folder + ": " + std::strerror(errno));
    }
    Renew();
    due += interval;
    timer.StartAt(due, [this] { RenewInTurn(); });
}

void Snapshot::RenewInTurn() {
    try {
        Renew();
        failing = false;
    } catch (const Failure& failure) {
        if (!failing) {
            Complain("%s", failure.what());
        }
        failing = true;
    }
    due += interval;
    timer.StartAt(due, [this] { RenewInTurn(); });
}

void Snapshot::Renew() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    Write(EncodeJpeg(PaintPicture(head.GetPosition(), local)));
}

void Snapshot::Write(const std::vector<uint8_t>& content) const {
    const int descriptor = open(hiddenPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor < 0) {
        FailToWrite(hiddenPath, errno);
    }
    int reason = WriteAndClose(descriptor, content);
    if (reason == 0 && rename(hiddenPath.c_str(), path.c_str()) != 0) {
        reason = errno;
    }
    if (reason != 0) {
        unlink(hiddenPath.c_str());
        FailToWrite(path, reason);
    }
}

}  // namespace kelto::vcam
