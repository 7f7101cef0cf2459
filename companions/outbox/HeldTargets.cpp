#include "companions/outbox/HeldTargets.h"

#include "companions/common/UniqueFd.h"
#include "companions/outbox/FieldText.h"
#include "companions/outbox/Log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <utility>

namespace kelto::halvek::outbox {

namespace {

/** Whole or not at all. */
bool WriteFile(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".new";
    const companion::UniqueFd file(
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    return file.IsOpen() && write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
           fsync(file.Get()) == 0 && std::rename(temporary.c_str(), path.c_str()) == 0;
}

}  // namespace

HeldTargets::HeldTargets(std::vector<std::string> where) : files(std::move(where)) {}

void HeldTargets::Load() {
    for (const std::string& path : files) {
        std::ostringstream text;
        if (const std::ifstream file(path); file) {
            text << file.rdbuf();
        }
        for (const auto& [key, value] : FieldText::Parse(text.str()).value_or(FieldText::Fields())) {
            if (key == "all") {
                isAllHeld = true;
            } else if (key == "target") {
                targets.insert(value);
            }
        }
    }
}

void HeldTargets::HoldAll() {
    isAllHeld = true;
    Save();
}

void HeldTargets::Hold(const std::string& target) {
    targets.insert(target);
    Save();
}

void HeldTargets::ReleaseAll() {
    isAllHeld = false;
    targets.clear();
    Save();
}

void HeldTargets::Release(const std::string& target) {
    targets.erase(target);
    Save();
}

void HeldTargets::Save() const {
    for (const std::string& path : files) {
        unlink(path.c_str());
    }
    std::string text;
    if (isAllHeld) {
        FieldText::Append(text, "all", "yes");
    }
    for (const std::string& target : targets) {
        FieldText::Append(text, "target", target);
    }
    const bool isWritten = text.empty() || std::any_of(files.begin(), files.end(),
                                                       [&](const std::string& path) { return WriteFile(path, text); });
    if (!isWritten) {
        Log::Warning("What is on hold cannot be written down: a restart would release it");
    }
}

}  // namespace kelto::halvek::outbox
