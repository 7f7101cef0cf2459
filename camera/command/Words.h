#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kelto::vcam {

/**
 * The words behind a command, taken one after the other: first the options, which stand anywhere, as "--name=value" or
 * "--name value"; then the arguments. A value that begins with "--" needs the first form, so no word has two meanings,
 * and "-1" is a number.
 *
 * Whatever is wrong is thrown as a Failure that tells the usage.
 */
class Words {
public:
    /** @param commandUsage the whole command as it should be */
    Words(std::string commandUsage, std::vector<std::string> typed)
        : usage(std::move(commandUsage)), words(std::move(typed)) {}

    /** The value of an option, which must not be repeated. */
    std::string TakeOption(const std::string& name, const std::string& otherwise = "");
    /** The values of an option that may be repeated. */
    std::vector<std::string> TakeOptions(const std::string& name);
    /** Whether an option without a value is there. */
    bool TakeFlag(const std::string& name);

    /** @param what what the argument is called in the usage */
    std::string TakeArgument(const std::string& what);
    int32_t TakeNumber(const std::string& what);
    /** "on" or "off". */
    bool TakeSwitch(const std::string& what);

    /** To be called before anything is done. */
    void ExpectNoMore() const;

    [[noreturn]] void Refuse(const std::string& problem) const;

private:
    [[noreturn]] void RefuseOption(const std::string& word) const;

    const std::string usage;
    std::vector<std::string> words;
};

}  // namespace kelto::vcam
