#include "tests/support/fake_clock.h"

#include <atomic>
#include <ctime>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

static std::atomic<int64_t> g_lFakeUsec{-1};

extern "C" int gettimeofday(struct timeval *pstNow, void *) noexcept {
    struct timespec stNow = {};
    syscall(SYS_clock_gettime, CLOCK_REALTIME, &stNow);
    const int64_t lFake = g_lFakeUsec;
    pstNow->tv_sec = lFake < 0 ? stNow.tv_sec : lFake / 1000000;
    pstNow->tv_usec = lFake < 0 ? stNow.tv_nsec / 1000 : lFake % 1000000;
    return 0;
}

extern "C" time_t time(time_t *plNow) noexcept {
    struct timeval stNow = {};
    gettimeofday(&stNow, nullptr);
    if (plNow != nullptr) {
        *plNow = stNow.tv_sec;
    }
    return stNow.tv_sec;
}

void SetClock(int64_t lSec, int64_t lUsec) {
    g_lFakeUsec = lSec * 1000000 + lUsec;
}

int64_t Utc(const std::string &szTime) {
    struct tm stTm = {};
    return strptime(szTime.c_str(), "%Y-%m-%dT%H:%M:%S", &stTm) != nullptr ? timegm(&stTm) : 0;
}
