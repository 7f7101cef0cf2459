#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/**
 * Sorts words into options and others. A value stands behind its option, as the next word or after a "=". Behind "--"
 * nothing is an option; the last of several values counts.
 */
class OptionReader {
public:
    struct Option {
        std::string name;
        bool takesValue;
        /** What counts where the next word is no number; empty if there has to be a value. */
        std::string absent = {};
    };

    /** What becomes of a word that looks like an option and is not listed. */
    enum class Unknown {
        /** It is a UsageError. */
        Refused,
        /** It stays among the words, and so does a "--", for somebody who reads on. */
        Kept,
    };

    /** Throws UsageError for an option that has no value and needs one, or has one and takes none. */
    OptionReader(const std::vector<std::string>& arguments, const std::vector<Option>& known,
                 Unknown unknown = Unknown::Refused);

    bool Has(const std::string& name) const { return values.count(name) != 0; }
    std::optional<std::string> Value(const std::string& name) const;

    /** The value as a number of that range, `absent` without the option. Throws UsageError for anything else. */
    int32_t Number(const std::string& name, int32_t absent, int32_t lowest, int32_t highest) const;

    /** What is no option, in its order. */
    const std::vector<std::string>& Words() const { return words; }

private:
    std::map<std::string, std::string> values;
    std::vector<std::string> words;
};

}  // namespace kelto::halvek::ctl
