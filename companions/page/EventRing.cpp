#include "companions/page/EventRing.h"

namespace kelto::page {

void EventRing::Add(const std::string& name, const std::string& data) {
    if (events.size() == capacity) {
        events.pop_front();
    }
    events.push_back("id: " + std::to_string(nextId) + "\nevent: " + name + "\ndata: " + data + "\n\n");
    ++nextId;
}

}  // namespace kelto::page
