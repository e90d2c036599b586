#include "bp/bp_log/shell.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

// Signal dispositions belong to the process while runs belong to threads: only the first of several overlapping
// runs sees the dispositions to go back to, and only the last may go back to them.
static pthread_mutex_t g_stShellLock = PTHREAD_MUTEX_INITIALIZER;
static uint32_t g_ulShellRuns;
static struct sigaction g_stOldQuit;
static struct sigaction g_stOldInt;

static void BP_ShellEnter() {
    struct sigaction stIgnore = {};
    stIgnore.sa_handler = SIG_IGN;
    sigemptyset(&stIgnore.sa_mask);

    pthread_mutex_lock(&g_stShellLock);
    if (g_ulShellRuns++ == 0) {
        sigaction(SIGQUIT, &stIgnore, &g_stOldQuit);
        sigaction(SIGINT, &stIgnore, &g_stOldInt);
    }
    pthread_mutex_unlock(&g_stShellLock);
}

static void BP_ShellLeave() {
    pthread_mutex_lock(&g_stShellLock);
    if (--g_ulShellRuns == 0) {
        sigaction(SIGQUIT, &g_stOldQuit, nullptr);
        sigaction(SIGINT, &g_stOldInt, nullptr);
    }
    pthread_mutex_unlock(&g_stShellLock);
}

// An interrupted wait is reported as -1, but the child is still fetched: it must not stay behind as a zombie.
static int BP_ShellWait(pid_t lPid) {
    int lStatus = -1;
    if (wait4(lPid, &lStatus, 0, nullptr) != -1) {
        return lStatus;
    }
    while (errno == EINTR && wait4(lPid, nullptr, 0, nullptr) == -1) {
    }
    return -1;
}

int BP_System(const char *pcCmd) {
    if (pcCmd == nullptr) {
        return 0;
    }
    BP_ShellEnter();
    // The mask is the calling thread's own, so overlapping runs do not meet here.
    sigset_t stBlock;
    sigset_t stOldMask;
    sigemptyset(&stBlock);
    sigaddset(&stBlock, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &stBlock, &stOldMask);

    int lStatus = -1;
    const pid_t lPid = vfork();
    if (lPid == 0) {
        sigaction(SIGQUIT, &g_stOldQuit, nullptr);
        sigaction(SIGINT, &g_stOldInt, nullptr);
        sigprocmask(SIG_SETMASK, &stOldMask, nullptr);
        execl("/bin/sh", "sh", "-c", pcCmd, static_cast<char *>(nullptr));
        _exit(127);
    }
    if (lPid > 0) {
        lStatus = BP_ShellWait(lPid);
    }
    BP_ShellLeave();
    pthread_sigmask(SIG_SETMASK, &stOldMask, nullptr);
    return lStatus;
}
