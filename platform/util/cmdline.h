#pragma once

/** One option of a program. A table of them ends with an entry of all zeros. */
struct cmdline_option {
    const char* longName;  ///< without the leading "--"; null for none
    char shortName;        ///< without the leading "-"; 0 for none
    bool hasArgument;
    const char* help;  ///< one line for the usage text; null for none
};

/**
 * The next option of a command line. Not for use by several threads.
 *
 * Prints nothing. Words that are no option are passed over; "--" ends the options. When the end has been reported, the
 * next call starts from the front.
 *
 * @return the option's shortName, or 0 if it has none; '?' for an option that is not in the table or lacks its
 * argument; -1 at the end
 */
int cmdline_getopt(int argc, char** argv, const cmdline_option* table);

/**
 * Prints how a program is called and its options to standard error, unless that is full and nobody reads it.
 *
 * @param name   what the program is called
 * @param status ends the process with this exit status unless it is 0
 */
void cmdline_usage(const cmdline_option* table, const char* name, int status);
