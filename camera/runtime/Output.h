#pragma once

namespace kelto::vcam {

/** Prints one line to standard output, with the local time before it, at once. */
void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));

/** Prints one line to standard error, with the program's name before it. */
void Complain(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kelto::vcam
