/** What ThreadSanitizer has to be told about the C library, linked into the tests in its builds only. */

// tzset() and localtime_r() guard the time zone with a lock inside the C library that ThreadSanitizer does not see, and
// so takes the freeing of the old name of the zone for a race.
extern "C" const char* __tsan_default_suppressions() {
    return "race:tzset_internal\n";
}
