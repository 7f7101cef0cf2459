#pragma once

/**
 * Which lock guards a field and which one a function wants held, for clang to check (-Wthread-safety). The locks are
 * the platform's, of which a camera's own need not take part in that.
 */
#ifdef __clang__
#define HALVEK_GUARDED_BY(lock) __attribute__((guarded_by(lock)))
#define HALVEK_REQUIRES(lock) __attribute__((requires_capability(lock)))
#else
#define HALVEK_GUARDED_BY(lock)
#define HALVEK_REQUIRES(lock)
#endif
