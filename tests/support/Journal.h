#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace kelto::test {

/** What happened, in its order. Any number of threads may note. */
class Journal {
public:
    void Note(const std::string& entry) {
        const std::lock_guard lock(mutex);
        entries.push_back(entry);
    }

    std::vector<std::string> Entries() const {
        const std::lock_guard lock(mutex);
        return entries;
    }

    void Clear() {
        const std::lock_guard lock(mutex);
        entries.clear();
    }

private:
    mutable std::mutex mutex;
    std::vector<std::string> entries;
};

}  // namespace kelto::test
