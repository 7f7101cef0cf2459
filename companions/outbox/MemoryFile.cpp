#include "companions/outbox/MemoryFile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace kelto::halvek::outbox {

namespace {

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

companion::UniqueFd MemoryFile::Of(std::string_view text) {
    companion::UniqueFd file(memfd_create("item", MFD_CLOEXEC));
    if (!file.IsOpen()) {
        Fail("memfd_create");
    }
    while (!text.empty()) {
        const ssize_t written = write(file.Get(), text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            Fail("memfd");
        }
        text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(written, 0)));
    }
    lseek(file.Get(), 0, SEEK_SET);
    return file;
}

std::string MemoryFile::ReadAll(int source, size_t mostBytes) {
    std::string text;
    std::array<char, size_t{64} * 1024> piece{};
    for (;;) {
        const ssize_t length = read(source, piece.data(), piece.size());
        if (length < 0 && errno != EINTR) {
            Fail("read");
        }
        if (length == 0) {
            return text;
        }
        text.append(piece.data(), static_cast<size_t>(std::max<ssize_t>(length, 0)));
        if (text.size() > mostBytes) {
            throw std::length_error("too long");
        }
    }
}

}  // namespace kelto::halvek::outbox
