#include "util/cmdline.h"

#include <getopt.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr int wordThatIsNoOption = 1;

bool IsEnd(const cmdline_option& option) {
    return option.longName == nullptr && option.shortName == 0;
}

std::string ShortOptions(const cmdline_option* table) {
    // The "-" hands words that are no option out as option 1, in their order, whatever POSIXLY_CORRECT says.
    std::string text = "-";
    for (; !IsEnd(*table); ++table) {
        if (table->shortName != 0) {
            text += table->shortName;
            text += table->hasArgument ? ":" : "";
        }
    }
    return text;
}

std::vector<option> LongOptions(const cmdline_option* table) {
    std::vector<option> options;
    for (; !IsEnd(*table); ++table) {
        if (table->longName != nullptr) {
            options.push_back({table->longName, table->hasArgument ? 1 : 0, nullptr, table->shortName});
        }
    }
    options.push_back({});
    return options;
}

/** A pipe or a socket that nobody reads may have none, and would hold the caller up. */
bool StandardErrorHasRoom() {
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    return poll(&standardError, 1, 0) > 0;
}

void PrintUsage(const cmdline_option* table, const char* name) {
    std::fprintf(stderr, "Usage: %s%s\n", name, IsEnd(*table) ? "" : " [OPTION]...");
    for (; !IsEnd(*table); ++table) {
        const char shortName[] = {'-', table->shortName, '\0'};
        std::fprintf(stderr, "  %2s %s%-20s %s\n", table->shortName != 0 ? shortName : "",
                     table->longName != nullptr ? "--" : "", table->longName != nullptr ? table->longName : "",
                     table->help != nullptr ? table->help : "");
    }
}

}  // namespace

int cmdline_getopt(int argc, char** argv, const cmdline_option* table) {
    opterr = 0;
    const std::string shortOptions = ShortOptions(table);
    const std::vector<option> longOptions = LongOptions(table);
    int result = wordThatIsNoOption;
    while (result == wordThatIsNoOption) {
        result = getopt_long(argc, argv, shortOptions.c_str(), longOptions.data(), nullptr);
    }
    if (result == -1) {
        optind = 0;
    }
    return result;
}

void cmdline_usage(const cmdline_option* table, const char* name, int status) {
    if (StandardErrorHasRoom()) {
        PrintUsage(table, name);
    }
    if (status != 0) {
        std::exit(status);
    }
}
