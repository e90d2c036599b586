// The clock that a test program reads: the real one, or where a test has put it. gettimeofday and time take the
// place of libc's at linking, so the product has no seam that costs anything.
#ifndef TESTS_SUPPORT_FAKE_CLOCK_H
#define TESTS_SUPPORT_FAKE_CLOCK_H

#include <cstdint>
#include <string>

// Stops the clock there.
void SetClock(int64_t lSec, int64_t lUsec = 0);

// "2026-03-05T08:00:00" in UTC as seconds since 1970; 0 for what is no time.
int64_t Utc(const std::string &szTime);

#endif
