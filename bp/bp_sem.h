// POSIX unnamed semaphores as the runtime uses them: locks start at 1, wake-ups at 0.
//
// A semaphore is usable from its construction on, so that a lookup made before the process has started finds
// an empty list instead of a lock that nobody will ever post.
#ifndef BP_BP_SEM_H
#define BP_BP_SEM_H

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <semaphore.h>
#include <unistd.h>

#include "bp/bp_clock.h"

// Whether libc has sem_clockwait.
#if __GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 30)
#define BP_SEM_CLOCKWAIT 1
#else
#define BP_SEM_CLOCKWAIT 0
#endif

constexpr long BP_SEM_NAP_MIN = 50000; // ns between two looks of PollFor: at first, and later
constexpr long BP_SEM_NAP_MAX = 1000000;

// Pauses of a processor between two tries to take a lock: first, and last before the thread sleeps. Together
// some three microseconds where a pause takes 26 ns.
constexpr uint32_t BP_LOCK_PAUSE_MIN = 16;
constexpr uint32_t BP_LOCK_PAUSE_MAX = 64;

// On one processor the holder of a lock cannot go on while another thread pauses.
inline const bool g_bLockPauses = sysconf(_SC_NPROCESSORS_ONLN) > 1;

// Tells the processor that its thread waits for another one.
inline void BP_CpuPause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || (defined(__ARM_ARCH) && __ARM_ARCH >= 7)
    __asm__ volatile("yield");
#else
    __asm__ volatile("" ::: "memory");
#endif
}

struct BP_Sem {
    sem_t stSem;

    explicit BP_Sem(uint32_t ulValue = 1) { Init(ulValue); }
    BP_Sem(const BP_Sem &) = delete;
    BP_Sem &operator=(const BP_Sem &) = delete;

    // Sets the value anew. Nobody may hold or wait for the semaphore.
    void Init(uint32_t ulValue) { sem_init(&stSem, 0, ulValue); }
    void Post() { sem_post(&stSem); }
    // The same as Wait, for locks.
    void Lock() {
        if (sem_trywait(&stSem) != 0) {
            BackOff();
        }
    }
    // Blocks until the value can be taken; a signal does not end the wait.
    void Wait() {
        while (sem_wait(&stSem) != 0 && errno == EINTR) {
        }
    }
    // The same for at most ulMs milliseconds; false if they are over.
    bool WaitFor(uint32_t ulMs) {
#if BP_SEM_CLOCKWAIT
        struct timespec stEnd;
        clock_gettime(CLOCK_MONOTONIC, &stEnd);
        stEnd.tv_sec += ulMs / 1000;
        stEnd.tv_nsec += static_cast<long>(ulMs % 1000) * 1000000;
        if (stEnd.tv_nsec >= 1000000000) {
            stEnd.tv_sec++;
            stEnd.tv_nsec -= 1000000000;
        }
        int lRet = 0;
        while ((lRet = sem_clockwait(&stSem, CLOCK_MONOTONIC, &stEnd)) != 0 && errno == EINTR) {
        }
        return lRet == 0;
#else
        return PollFor(ulMs);
#endif
    }
    // WaitFor without sem_clockwait. Not with sem_timedwait: that one waits longer if the wall clock is set
    // back.
    bool PollFor(uint32_t ulMs) {
        const int64_t lEnd = BP_NowMs() + ulMs;
        for (long lNap = BP_SEM_NAP_MIN; sem_trywait(&stSem) != 0; lNap = std::min(2 * lNap, BP_SEM_NAP_MAX)) {
            if (BP_NowMs() >= lEnd) {
                return false;
            }
            const struct timespec stNap = {0, lNap};
            nanosleep(&stNap, nullptr);
        }
        return true;
    }

private:
    // Locks are held for a list operation, so a contending thread looks up to three times more before it
    // sleeps: a system call on either side costs more than the operation, and every try takes the lock's cache
    // line from the thread that works with it.
    __attribute__((noinline)) void BackOff() {
        for (uint32_t ulPause = BP_LOCK_PAUSE_MIN; g_bLockPauses && ulPause <= BP_LOCK_PAUSE_MAX;
             ulPause *= 2) {
            for (uint32_t i = 0; i < ulPause; i++) {
                BP_CpuPause();
            }
            if (sem_trywait(&stSem) == 0) {
                return;
            }
        }
        Wait();
    }
};

// Holds a lock semaphore for the life of the guard. No handler or callback is called while one lives, and,
// except under the timer pool's lock, no log line written and no dump made.
struct BP_SemGuard {
    explicit BP_SemGuard(BP_Sem &semLock) : semHeld(semLock) { semHeld.Lock(); }
    ~BP_SemGuard() { semHeld.Post(); }
    BP_SemGuard(const BP_SemGuard &) = delete;
    BP_SemGuard &operator=(const BP_SemGuard &) = delete;

private:
    BP_Sem &semHeld;
};

#endif
