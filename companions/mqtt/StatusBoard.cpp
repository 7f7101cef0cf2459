#include "companions/mqtt/StatusBoard.h"

namespace kelto::halvek::mqtt {

const char* BridgeState::Word() const {
    switch (kind) {
        case Kind::Connecting:
            return "connecting";
        case Kind::Connected:
            return "connected";
        case Kind::Waiting:
            return "waiting";
        case Kind::Conflict:
            return "conflict";
    }
    return "";
}

void StatusBoard::Set(const BridgeState& other) {
    const std::lock_guard lock(mutex);
    if (state == other) {
        return;
    }
    state = other;
    changed.Set();
}

BridgeState StatusBoard::Get() const {
    const std::lock_guard lock(mutex);
    return state;
}

}  // namespace kelto::halvek::mqtt
