#pragma once

#include "camera/runtime/Timer.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kelto::vcam {

class EventLoop;
class Head;

/**
 * The file in which the camera keeps its latest picture; a new one every second. It is written under a hidden name
 * beside it and renamed, so a reader sees one picture or the other, whole. It stays when the camera ends.
 */
class Snapshot {
public:
    /** Makes the folder, if need be, and the first picture. Throws Failure. */
    Snapshot(EventLoop& eventLoop, const Head& cameraHead, const std::string& snapshotPath);

private:
    void RenewInTurn();
    void Renew();
    void Write(const std::vector<uint8_t>& content) const;

    EventLoop& loop;
    const Head& head;
    const std::string path;
    std::string folder;
    std::string hiddenPath;
    Timer timer;
    uint64_t due;
    bool failing = false;
};

}  // namespace kelto::vcam
