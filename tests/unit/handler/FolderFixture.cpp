#include "tests/unit/handler/FolderFixture.h"

#include "event/TimerEvent.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

namespace kelto::halvek::handler {

namespace fs = std::filesystem;

namespace {

std::string MakeFolder(const std::string& path) {
    fs::create_directory(path);
    return path;
}

}  // namespace

FolderFixture::FolderFixture() : target(MakeFolder(folder.PathOf("target"))), card(target, "size=128k") {
    NameSnapshot(source);
}

void FolderFixture::TearDown() {
    EXPECT_EQ(bait.Now(), bait.Before());
    for (const std::string& name : Names()) {
        EXPECT_NE(name.front(), '.') << name;
    }
}

void FolderFixture::NameSnapshot(const std::string& path) const {
    folder.Write("settings.ini", "[Video/Quickview]\nSnapshotPath=" + path + "\n");
}

void FolderFixture::Configure(const core::IniFile::Group& keys) {
    core::IniFile::Group group = keys;
    group.insert({{"Attachment", "true"}, {"DestinationPath", target}, {"DestName", "new.jpg"}});
    handler.Configure(group);
    log.Clear();
}

void FolderFixture::Act() {
    log.Clear();
    event::TimerEvent event(Event::Properties{{"eventType", "Test"}});
    handler.HandleEvent(event);
    EXPECT_EQ(event.GetProperties(), (Event::Properties{{"eventType", "Test"}}));
}

std::vector<std::string> FolderFixture::Lines() const {
    std::vector<std::string> lines = log.Lines();
    for (std::string& line : lines) {
        line.resize(std::min(line.find('\n'), line.size()));
    }
    return lines;
}

std::vector<std::string> FolderFixture::Names() const {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(target)) {
        names.push_back(entry.path().string().substr(target.size() + 1));
    }
    std::sort(names.begin(), names.end());
    return names;
}

void FolderFixture::Put(const std::string& name, size_t size, time_t modified) const {
    folder.Write("target/" + name, std::string(size, 'o'));
    const timespec times[2] = {{.tv_sec = modified, .tv_nsec = 0}, {.tv_sec = modified, .tv_nsec = 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, InTarget(name).c_str(), times, 0), 0);
}

std::string FolderFixture::MakeSparse(const std::string& name, int64_t size) const {
    const std::string path = folder.Write(name, "");
    EXPECT_EQ(truncate(path.c_str(), size), 0);
    return path;
}

}  // namespace kelto::halvek::handler
