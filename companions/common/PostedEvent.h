#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelto::companion {

/**
 * An event to be posted. What it holds comes out of the daemon as it was put in, as one event and no other.
 *
 * Types may be any text of at least a byte, keys any that begins with a letter or digit. A value may be empty. Bytes
 * beyond ASCII are nobody's business here. A plain value.
 */
class PostedEvent {
public:
    using Property = std::pair<std::string, std::string>;

    /** The longest block in bytes. One of that size is written in one piece or not at all, see pipe(7). */
    static constexpr size_t mostBytes = 4096;

    /** Throws PostRefusal for a type that is empty, or has "]" or a line break in it. */
    explicit PostedEvent(std::string_view eventType);

    /**
     * Sets a property; of two with one key the later counts, as it would to the daemon.
     *
     * @throws PostRefusal for a key whose first byte is no letter or digit of ASCII or that has "=" in it, and for a
     *         line break in either
     */
    void Set(std::string_view key, std::string_view value);

    /** Set with a word like "key=value". Throws as it does, and for one without "=". */
    void SetByWord(std::string_view word);

    const std::string& Type() const { return type; }
    /** In the order in which they were set first. */
    const std::vector<Property>& Properties() const { return properties; }

    /** The text to write, with one write. Throws PostRefusal if it is longer than mostBytes. */
    std::string Block() const;

    /**
     * Reads the blocks of a text, each from its header to its full stop. It is stricter than the daemon, which takes
     * something for an event whatever it reads.
     *
     * @throws PostRefusal, naming the line, for everything that is no whole block: empty lines, lines that the daemon
     *         ignores, an end that is missing, and what Set and Block refuse
     */
    static std::vector<PostedEvent> ParseAll(std::string_view text);

private:
    std::string type;
    std::vector<Property> properties;
};

}  // namespace kelto::companion
