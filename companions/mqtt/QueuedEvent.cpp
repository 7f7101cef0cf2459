#include "companions/mqtt/QueuedEvent.h"

namespace kelto::halvek::mqtt {

size_t QueuedEvent::Size() const {
    size_t size = event.type.size();
    for (const auto& [key, value] : event.properties) {
        size += key.size() + value.size() + 2;
    }
    return size;
}

}  // namespace kelto::halvek::mqtt
