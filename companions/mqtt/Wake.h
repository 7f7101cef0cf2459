#pragma once

#include "companions/common/UniqueFd.h"

namespace kelto::halvek::mqtt {

/** Wakes a thread that waits in poll(). Any thread may call Set; the one that waits calls Clear. */
class Wake {
public:
    /** Throws std::system_error. */
    Wake();

    void Set();
    void Clear();
    /** Readable once it has been set. */
    int Descriptor() const { return event.Get(); }

private:
    companion::UniqueFd event;
};

}  // namespace kelto::halvek::mqtt
