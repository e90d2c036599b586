#include "bp/bp_module/pace.h"

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <initializer_list>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "bp/bp_clock.h"
#include "bp/bp_log/log.h"
#include "bp/bp_module/proc_info.h"

static constexpr int BP_SYNC_EPOLL_SIZE = 32;

static bool g_bPrompt; // constant once the process has started
static int g_lWakeFd = -1;
static int g_lTimerFd = -1;

// Set by whoever has something for the main thread, taken back by it before it looks: only the first of them
// needs to wake it.
static std::atomic<bool> g_bQueued{false};
static std::atomic<bool> g_bTimerSet{false};

// The main thread's.
static int64_t g_lPassDueMs;
static bool g_bTimerArmed; // for that time

uint32_t BP_SetPromptDelivery(uint32_t ulOn) {
    if (ulOn > 1) {
        return BP_ERR_PARAM;
    }
    if (BP_GetProcInfo()->usProcID != 0) {
        return BP_ERR_FAIL;
    }
    g_bPrompt = ulOn == 1;
    return BP_OK;
}

uint32_t BP_GetPromptDelivery() {
    return g_bPrompt ? 1 : 0;
}

int BP_CreateEpoll(int lSize) {
    const int lFd = epoll_create(lSize);
    if (lFd >= 0) {
        fcntl(lFd, F_SETFD, FD_CLOEXEC);
    }
    return lFd;
}

static bool BP_Watch(int lFd) {
    struct epoll_event stEvent = {};
    stEvent.events = EPOLLIN | EPOLLET; // each write or expiry is an event of its own, so nobody needs to read
    stEvent.data.fd = lFd;
    return lFd >= 0 && epoll_ctl(BP_GetProcInfo()->lEpollFd, EPOLL_CTL_ADD, lFd, &stEvent) == 0;
}

// Where waits end by events before the pass is due, a timer that stays set from pass to pass costs less than a
// limit to each wait; where they end by their limit, the limit does.
static void BP_ArmPassTimer() {
    const int64_t lMs = std::max<int64_t>(g_lPassDueMs - BP_NowMs(), 0);
    const struct itimerspec stDue = {{}, {0, lMs != 0 ? static_cast<long>(lMs) * 1000000 : 1}};
    timerfd_settime(g_lTimerFd, 0, &stDue, nullptr);
    g_bTimerArmed = true;
}

uint32_t BP_InitPace() {
    if (!g_bPrompt) {
        return BP_OK;
    }
    g_lWakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    g_lTimerFd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (!BP_Watch(g_lWakeFd) || !BP_Watch(g_lTimerFd)) {
        BP_ClosePace();
        return BP_ERR_FAIL;
    }
    return BP_OK;
}

void BP_ClosePace() {
    for (int *plFd : {&g_lWakeFd, &g_lTimerFd}) {
        if (*plFd >= 0) {
            close(*plFd);
        }
        *plFd = -1;
    }
}

uint32_t BP_PaceSocketEvents() {
    // That a datagram has been read at the other end makes the socket writable anew, which nobody wants to
    // know: at the default pace it is an event like any other, at the prompt one it would only wake the main
    // thread.
    return g_bPrompt ? EPOLLIN | EPOLLET : EPOLLIN | EPOLLOUT | EPOLLET;
}

static void BP_WakeMain(std::atomic<bool> &bReason) {
    if (g_bPrompt && !bReason.exchange(true)) {
        eventfd_write(g_lWakeFd, 1);
    }
}

void BP_PaceQueued() {
    BP_WakeMain(g_bQueued);
}

void BP_PaceTimerSet() {
    BP_WakeMain(g_bTimerSet);
}

int BP_PaceWaitMs() {
    if (g_bPrompt && (g_bQueued || g_bTimerSet)) {
        return 0;
    }
    if (g_bTimerArmed) {
        return -1;
    }
    const int64_t lNowMs = BP_NowMs();
    if (g_lPassDueMs == 0) {
        g_lPassDueMs = lNowMs + BP_MAIN_EPOLL_TIMEOUT;
    }
    return static_cast<int>(std::max<int64_t>(g_lPassDueMs - lNowMs, 0));
}

static BP_PaceWork BP_AfterDefaultWait(int lEvents) {
    // An event puts the work off; a signal does not, or a storm of them would put it off for ever.
    g_lPassDueMs = lEvents > 0 ? 0 : g_lPassDueMs;
    return lEvents == 0 ? BP_PACE_PASS : BP_PACE_NOTHING;
}

static BP_PaceWork BP_AfterPromptWait(int lEvents) {
    const bool bQueued = g_bQueued.exchange(false);
    if (g_bTimerSet.exchange(false) || BP_NowMs() >= g_lPassDueMs) {
        return BP_PACE_PASS;
    }
    if (lEvents > 0 && !g_bTimerArmed) {
        BP_ArmPassTimer();
    }
    return bQueued ? BP_PACE_DELIVER : BP_PACE_NOTHING;
}

BP_PaceWork BP_PaceAfterWait(int lEvents) {
    return g_bPrompt ? BP_AfterPromptWait(lEvents) : BP_AfterDefaultWait(lEvents);
}

void BP_PacePassDone(uint32_t (*pfnMsToNext)(uint32_t ulMaxMs)) {
    g_bTimerArmed = false;
    g_lPassDueMs = g_bPrompt ? BP_NowMs() + pfnMsToNext(BP_MAIN_EPOLL_TIMEOUT) : 0;
}

bool BP_PaceMayReadOn() {
    return !g_bPrompt || !(g_bQueued || g_bTimerSet || BP_NowMs() >= g_lPassDueMs);
}

uint32_t BP_PaceBeginWait(BP_AckWait *pstWait) {
    if (!g_bPrompt) {
        pstWait->lEpollFd = BP_CreateEpoll(BP_SYNC_EPOLL_SIZE);
    }
    return g_bPrompt || pstWait->lEpollFd >= 0 ? BP_OK : BP_ERR_FAIL;
}

void BP_PaceEndWait(BP_AckWait *pstWait) {
    if (pstWait->lEpollFd >= 0) {
        close(pstWait->lEpollFd);
    }
}

// One step on an epoll instance that watches nothing. Signals do not shorten it, or a storm of them would use
// up the limit, which is counted in steps.
static uint32_t BP_SleepStep(int lEpollFd) {
    struct epoll_event stEvent;
    const int64_t lEnd = BP_NowMs() + BP_SYNC_POLL_MS;
    int64_t lLeft = BP_SYNC_POLL_MS;
    while (lLeft > 0 && epoll_wait(lEpollFd, &stEvent, 1, static_cast<int>(lLeft)) < 0) {
        lLeft = lEnd - BP_NowMs();
    }
    return BP_SYNC_POLL_MS;
}

uint32_t BP_PaceStep(BP_AckWait *pstWait, uint32_t ulLeftMs) {
    if (!g_bPrompt) {
        return BP_SleepStep(pstWait->lEpollFd);
    }
    const uint32_t ulMs = ulLeftMs != 0 ? ulLeftMs : BP_SYNC_POLL_MS;
    const int64_t lStart = BP_NowMs();
    if (!pstWait->semAnswer.WaitFor(ulMs)) {
        return ulMs;
    }
    pstWait->ulTaken++;
    return static_cast<uint32_t>(std::min<int64_t>(BP_NowMs() - lStart, ulMs));
}
