#pragma once

#include "companions/common/UniqueFd.h"
#include "companions/outbox/ItemHeader.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::halvek::outbox {

/**
 * One place for items: a file for each, which is written once and never again.
 *
 * A file is whole or not there under its name: it is written in tmp/, made durable where that means anything, and
 * renamed into q/ once the item counts. It has the item's header, an empty line, the payload, and a last line
 * "end LENGTH CRC" with the payload's length and CRC-32C. What is in tmp/ at a start never counted. One thread at a
 * time.
 *
 * Everything that writes throws std::system_error, with the file's name.
 */
class SpoolFolder {
public:
    enum class Medium {
        /** Gone after a reboot: nothing is worth waiting for. */
        Ram,
        Flash,
    };

    /** A file as it stands in q/. */
    struct File {
        uint64_t id = 0;
        ItemHeader header;
        /** In bytes, of all the file. */
        uint64_t size = 0;
        uint64_t payloadOffset = 0;
        uint64_t payloadSize = 0;
    };

    /** What was found at a start. */
    struct Found {
        std::vector<File> files;
        /** Names of those that are damaged: they are in bad/ now, where the newest five are kept. */
        std::vector<std::string> damaged;
    };

    SpoolFolder(std::string folder, Medium kind);

    /** Makes what is missing, and reads what is there. */
    Found Open();

    /**
     * Copies a payload from where its descriptor stands, into a file that does not count yet: see Publish and Discard.
     * Throws std::length_error if it is longer than that.
     */
    File Write(uint64_t id, const ItemHeader& header, int payload, uint64_t mostBytes);
    /** What was written counts from now on; if this throws, it is gone. */
    void Publish(uint64_t id);
    /** What was written never counts. */
    void Discard(uint64_t id) noexcept;

    /** The bytes of a file with a payload of that length. */
    static uint64_t SizeOf(const ItemHeader& header, uint64_t payloadSize);

    /** Takes over a file of another folder, as it is; the other one stays. */
    void Copy(uint64_t id, const SpoolFolder& other);

    /** Whether there is none of that number now. */
    bool Remove(uint64_t id) noexcept;

    /** Keeps a few lines about an item, instead of those from before. They go with the item. */
    void WriteNote(uint64_t id, std::string_view text);
    /** Empty if there are none. */
    std::string ReadNote(uint64_t id) const;

    /** For reading; closed if it is not there. */
    companion::UniqueFd OpenItem(uint64_t id) const;

    /** Keeps the header of an item that has failed, without its password, in failed/: the newest fifty. */
    void KeepFailed(uint64_t id, ItemHeader header, const std::string& reason);

    /** The highest number that a file has here, whatever became of it; 0 if there is none. */
    uint64_t HighestId() const;

    /** Bytes that may still be written before the medium is fuller than it should be; negative below that. */
    int64_t Room() const;

    const std::string& Path() const { return path; }

    /** As a file's name: sixteen hexadecimal digits. */
    static std::string NameOf(uint64_t id);
    static std::optional<uint64_t> IdOf(const std::string& name);

private:
    std::string QueuePath(uint64_t id) const { return path + "/q/" + NameOf(id); }
    std::string TemporaryPath(uint64_t id) const { return path + "/tmp/" + NameOf(id); }
    std::string NotePath(uint64_t id) const { return path + "/notes/" + NameOf(id); }
    void MakeDurable(int file, const std::string& name) const;
    void Rename(uint64_t id, const std::string& folder);
    void RemoveStrayNotes();
    std::optional<File> Read(uint64_t id) const;
    void SetAside(const std::string& name);

    // Constant after construction.
    std::string path;
    Medium medium;
};

}  // namespace kelto::halvek::outbox
