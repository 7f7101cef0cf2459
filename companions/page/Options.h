#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelto::page {

/** A command line that cannot be meant so; the text is for the person who typed it. */
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** What is typed to start the page. */
class Options {
public:
    enum class Wish { Run, Help, Version };

    /** Throws UsageError. */
    Options(int argc, char** argv);

    static const char* Help();

    Wish wish = Wish::Run;
    uint16_t port = 8077;  ///< 0: any that is free
    std::string address = "127.0.0.1";
    std::vector<std::string> hosts;  ///< names that the page may be called by, besides the machine's own
    std::string snapshot = "/tmp/snapshot/img2.jpg";
    std::string listenerPipe = "/var/run/halvek/zz-page.halvek.any";
    std::string eventPipe = "/var/run/halvek.pipe";
    std::string halvekctl = "halvekctl";
    std::string settings;  ///< empty: those that halvekctl finds

private:
    void TakePipe(const std::string& path);
};

}  // namespace kelto::page
