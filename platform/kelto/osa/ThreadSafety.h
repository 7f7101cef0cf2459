#pragma once

/**
 * What clang checks of locks (-Wthread-safety): which field a lock guards, which function takes, releases or needs one.
 * Other compilers see nothing of it.
 *
 * Fields under a std::mutex have a comment instead: the standard library says nothing to the check, and a wait on a
 * condition variable is beyond it.
 */
#ifdef __clang__
#define KELTO_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define KELTO_THREAD_SAFETY(attribute)
#endif
