#include "companions/outbox/SpoolFolder.h"

#include "companions/outbox/Crc32c.h"
#include "companions/outbox/FieldText.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace kelto::halvek::outbox {

using companion::UniqueFd;

namespace {

constexpr std::array folders = {"", "/q", "/tmp", "/bad", "/failed", "/notes"};
constexpr size_t keptDamaged = 5;
constexpr size_t keptFailed = 50;
constexpr size_t pieceSize = size_t{64} * 1024;
/** A header has a path, an account and at most some hundred recipients. */
constexpr size_t longestHeader = size_t{256} * 1024;
constexpr size_t longestEnd = 64;
constexpr size_t longestNote = size_t{256} * 1024;
/** What is left free on the medium: the smaller of the two, in bytes and as a part. */
constexpr uint64_t floorBytes = uint64_t{8} * 1024 * 1024;
constexpr uint64_t floorPart = 10;

/** Fits where addresses have 32 bits. */
size_t AtMost(uint64_t size, size_t limit) {
    return static_cast<size_t>(std::min<uint64_t>(size, limit));
}

[[noreturn]] void Fail(const std::string& path, int error = errno) {
    throw std::system_error(error, std::generic_category(), path);
}

/** In the order of their names. What cannot be read is empty. */
std::vector<std::string> NamesIn(const std::string& folder) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> open(opendir(folder.c_str()), closedir);
    while (const dirent* entry = open ? readdir(open.get()) : nullptr) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

void KeepNewest(const std::string& folder, size_t count) {
    const std::vector<std::string> names = NamesIn(folder);
    for (size_t i = 0; i + count < names.size(); ++i) {
        unlink((folder + "/" + names[i]).c_str());
    }
}

void WriteAll(int file, std::string_view text, const std::string& path) {
    while (!text.empty()) {
        const ssize_t written = write(file, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            Fail(path);
        }
        text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(written, 0)));
    }
}

/** The number of bytes read: fewer than wanted only at the end. */
size_t ReadPiece(int file, char* buffer, size_t wanted, const std::string& path) {
    size_t length = 0;
    while (length < wanted) {
        const ssize_t got = read(file, buffer + length, wanted - length);
        if (got < 0 && errno != EINTR) {
            Fail(path);
        }
        if (got == 0) {
            break;
        }
        length += static_cast<size_t>(std::max<ssize_t>(got, 0));
    }
    return length;
}

/** A file that is removed again, unless it has got another name or is kept. */
class TemporaryFile {
public:
    explicit TemporaryFile(std::string name)
        : path(std::move(name)), file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600)) {
        if (!file.IsOpen()) {
            Fail(path);
        }
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (!isKept) {
            unlink(path.c_str());
        }
    }

    void Keep() { isKept = true; }

    const std::string path;
    const UniqueFd file;

private:
    bool isKept = false;
};

std::string EndLine(uint64_t length, const Crc32c& crc) {
    return "\nend " + std::to_string(length) + " " + crc.Hex() + "\n";
}

}  // namespace

SpoolFolder::SpoolFolder(std::string folder, Medium kind) : path(std::move(folder)), medium(kind) {}

SpoolFolder::Found SpoolFolder::Open() {
    for (const char* folder : folders) {
        if (mkdir((path + folder).c_str(), 0700) != 0 && errno != EEXIST) {
            Fail(path + folder);
        }
    }
    for (const std::string& name : NamesIn(path + "/tmp")) {
        unlink((path + "/tmp/" + name).c_str());
    }
    Found found;
    for (const std::string& name : NamesIn(path + "/q")) {
        const std::optional<uint64_t> id = IdOf(name);
        if (std::optional<File> file = id ? Read(*id) : std::nullopt) {
            found.files.push_back(*std::move(file));
        } else {
            SetAside(name);
            found.damaged.push_back(name);
        }
    }
    RemoveStrayNotes();
    return found;
}

void SpoolFolder::RemoveStrayNotes() {
    for (const std::string& name : NamesIn(path + "/notes")) {
        if (access((path + "/q/" + name).c_str(), F_OK) != 0) {
            unlink((path + "/notes/" + name).c_str());
        }
    }
}

/** What cannot be moved is removed: it would be found at every start. */
void SpoolFolder::SetAside(const std::string& name) {
    const std::string from = path + "/q/" + name;
    if (rename(from.c_str(), (path + "/bad/" + name).c_str()) != 0) {
        unlink(from.c_str());
    }
    KeepNewest(path + "/bad", keptDamaged);
}

std::optional<SpoolFolder::File> SpoolFolder::Read(uint64_t id) const {
    try {
        const std::string name = QueuePath(id);
        const UniqueFd file = OpenItem(id);
        struct stat status {};
        if (!file.IsOpen() || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
            return std::nullopt;
        }
        const auto size = static_cast<uint64_t>(status.st_size);
        std::string text(AtMost(size, longestHeader), '\0');
        text.resize(ReadPiece(file.Get(), text.data(), text.size(), name));
        const size_t headerEnd = text.find("\n\n");
        if (headerEnd == std::string::npos) {
            return std::nullopt;
        }
        const std::optional<ItemHeader> header = ItemHeader::Decode(std::string_view(text).substr(0, headerEnd + 2));
        std::string tail(AtMost(size, longestEnd), '\0');
        if (lseek(file.Get(), static_cast<off_t>(size - tail.size()), SEEK_SET) < 0 ||
            ReadPiece(file.Get(), tail.data(), tail.size(), name) != tail.size()) {
            return std::nullopt;
        }
        const size_t end = tail.rfind("\nend ");
        if (!header || end == std::string::npos || size < headerEnd + 2 + tail.size() - end) {
            return std::nullopt;
        }
        File found{id, *header, size, headerEnd + 2, size - (tail.size() - end) - (headerEnd + 2)};
        Crc32c crc;
        lseek(file.Get(), static_cast<off_t>(found.payloadOffset), SEEK_SET);
        std::string piece(pieceSize, '\0');
        for (uint64_t left = found.payloadSize; left > 0;) {
            const size_t length = ReadPiece(file.Get(), piece.data(), AtMost(left, piece.size()), name);
            if (length == 0) {
                return std::nullopt;
            }
            crc.Add({piece.data(), length});
            left -= length;
        }
        return tail.substr(end) == EndLine(found.payloadSize, crc) ? std::optional(found) : std::nullopt;
    } catch (const std::system_error&) {
        return std::nullopt;
    }
}

void SpoolFolder::MakeDurable(int file, const std::string& name) const {
    if (medium == Medium::Flash && fsync(file) != 0) {
        Fail(name);
    }
}

void SpoolFolder::Rename(uint64_t id, const std::string& folder) {
    const std::string target = folder + "/" + NameOf(id);
    if (rename(TemporaryPath(id).c_str(), target.c_str()) != 0) {
        Fail(target);
    }
    if (medium == Medium::Flash) {
        const UniqueFd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!opened.IsOpen() || fsync(opened.Get()) != 0) {
            Fail(folder);
        }
    }
}

SpoolFolder::File SpoolFolder::Write(uint64_t id, const ItemHeader& header, int payload, uint64_t mostBytes) {
    TemporaryFile temporary(TemporaryPath(id));
    const std::string text = header.Encode();
    WriteAll(temporary.file.Get(), text, temporary.path);
    Crc32c crc;
    uint64_t length = 0;
    std::string piece(pieceSize, '\0');
    while (const size_t got = ReadPiece(payload, piece.data(), piece.size(), "the file to be sent")) {
        length += got;
        if (length > mostBytes) {
            throw std::length_error("the file to be sent is too long");
        }
        crc.Add({piece.data(), got});
        WriteAll(temporary.file.Get(), {piece.data(), got}, temporary.path);
    }
    const std::string end = EndLine(length, crc);
    WriteAll(temporary.file.Get(), end, temporary.path);
    MakeDurable(temporary.file.Get(), temporary.path);
    temporary.Keep();
    return {id, header, text.size() + length + end.size(), text.size(), length};
}

uint64_t SpoolFolder::SizeOf(const ItemHeader& header, uint64_t payloadSize) {
    return header.Encode().size() + payloadSize + EndLine(payloadSize, Crc32c()).size();
}

/** What may not last has not been taken: it must not turn up at the next start. */
void SpoolFolder::Publish(uint64_t id) {
    try {
        Rename(id, path + "/q");
    } catch (const std::system_error&) {
        unlink(QueuePath(id).c_str());
        throw;
    }
}

void SpoolFolder::Discard(uint64_t id) noexcept {
    unlink(TemporaryPath(id).c_str());
}

void SpoolFolder::Copy(uint64_t id, const SpoolFolder& other) {
    const UniqueFd source = other.OpenItem(id);
    if (!source.IsOpen()) {
        Fail(other.QueuePath(id));
    }
    const TemporaryFile temporary(TemporaryPath(id));
    std::string piece(pieceSize, '\0');
    while (const size_t got = ReadPiece(source.Get(), piece.data(), piece.size(), other.QueuePath(id))) {
        WriteAll(temporary.file.Get(), {piece.data(), got}, temporary.path);
    }
    MakeDurable(temporary.file.Get(), temporary.path);
    Publish(id);
}

bool SpoolFolder::Remove(uint64_t id) noexcept {
    unlink(NotePath(id).c_str());
    return unlink(QueuePath(id).c_str()) == 0 || errno == ENOENT || errno == ENOTDIR;
}

void SpoolFolder::WriteNote(uint64_t id, std::string_view text) {
    const TemporaryFile temporary(TemporaryPath(id));
    WriteAll(temporary.file.Get(), text, temporary.path);
    MakeDurable(temporary.file.Get(), temporary.path);
    Rename(id, path + "/notes");
}

std::string SpoolFolder::ReadNote(uint64_t id) const {
    const UniqueFd file(open(NotePath(id).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    std::string text(file.IsOpen() ? longestNote : 0, '\0');
    text.resize(file.IsOpen() ? ReadPiece(file.Get(), text.data(), text.size(), NotePath(id)) : 0);
    return text;
}

UniqueFd SpoolFolder::OpenItem(uint64_t id) const {
    return UniqueFd(open(QueuePath(id).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
}

void SpoolFolder::KeepFailed(uint64_t id, ItemHeader header, const std::string& reason) {
    header.password.clear();
    std::string text = header.Encode();
    FieldText::Append(text, "reason", reason);
    const TemporaryFile temporary(TemporaryPath(id));
    WriteAll(temporary.file.Get(), text, temporary.path);
    MakeDurable(temporary.file.Get(), temporary.path);
    Rename(id, path + "/failed");
    KeepNewest(path + "/failed", keptFailed);
}

uint64_t SpoolFolder::HighestId() const {
    uint64_t highest = 0;
    for (const char* folder : folders) {
        for (const std::string& name : NamesIn(path + folder)) {
            highest = std::max(highest, IdOf(name).value_or(0));
        }
    }
    return highest;
}

int64_t SpoolFolder::Room() const {
    struct statvfs status {};
    if (statvfs(path.c_str(), &status) != 0) {
        Fail(path);
    }
    const uint64_t all = uint64_t{status.f_blocks} * status.f_frsize;
    const uint64_t free = uint64_t{status.f_bavail} * status.f_frsize;
    return static_cast<int64_t>(free) - static_cast<int64_t>(std::min(floorBytes, all / floorPart));
}

std::string SpoolFolder::NameOf(uint64_t id) {
    std::array<char, 17> text{};
    std::snprintf(text.data(), text.size(), "%016" PRIx64, id);
    return text.data();
}

std::optional<uint64_t> SpoolFolder::IdOf(const std::string& name) {
    uint64_t id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id, 16);
    return error == std::errc() && end == name.data() + name.size() && name == NameOf(id) ? std::optional(id)
                                                                                          : std::nullopt;
}

}  // namespace kelto::halvek::outbox
