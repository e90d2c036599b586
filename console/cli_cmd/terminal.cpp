#include "console/cli_cmd/terminal.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

// Their handler uses the terminal on the console's thread only, one signal at a time, and CLI_RestoreMode
// blocks them: each finds and leaves the terminal either the console's or as it was.
static constexpr int g_alSignal[] = {SIGHUP, SIGTERM, SIGPIPE, SIGTSTP, SIGCONT};
static pthread_t g_ulThread;
static std::atomic<const CLI_Terminal *> g_pstTerminal{nullptr}; // null while it is as it was
static std::atomic<bool> g_bStopped{false};

// In the background the terminal is another program's, and setting it would stop the console. A terminal that
// controls no session, as a device's shell may have it, has no foreground.
static bool CLI_HasTerminal(const CLI_Terminal *pstTerminal) {
    const pid_t lForeground = tcgetpgrp(STDIN_FILENO);
    return pstTerminal != nullptr && (lForeground == -1 || lForeground == getpgrp());
}

static void CLI_SetFlags(const CLI_Terminal *pstTerminal, int lMask) {
    for (int lFd = STDIN_FILENO; lFd <= STDERR_FILENO; lFd++) {
        if (pstTerminal->alFlags[lFd] != -1) {
            fcntl(lFd, F_SETFL, pstTerminal->alFlags[lFd] & lMask);
        }
    }
}

static void CLI_TakeTerminal(const CLI_Terminal *pstTerminal) {
    if (CLI_HasTerminal(pstTerminal)) {
        CLI_SetFlags(pstTerminal, ~O_NONBLOCK);
        tcsetattr(STDIN_FILENO, TCSANOW, &pstTerminal->stRaw);
    }
}

static void CLI_GiveTerminal(const CLI_Terminal *pstTerminal) {
    tcsetattr(STDIN_FILENO, TCSANOW, &pstTerminal->stSaved);
    CLI_SetFlags(pstTerminal, ~0);
}

static void CLI_End(int lSignal) {
    const CLI_Terminal *pstTerminal = g_pstTerminal.exchange(nullptr);
    if (CLI_HasTerminal(pstTerminal)) {
        CLI_GiveTerminal(pstTerminal);
    }
    signal(lSignal, SIG_DFL);
    raise(lSignal);
}

// Stops with the default action, so that the kernel decides whether to: it stops nothing that no shell could
// continue. The stop is raised first, so that a SIGCONT from here on cancels it.
static void CLI_Stop(int lSignal) {
    const CLI_Terminal *pstTerminal = g_pstTerminal;
    struct sigaction stDefault = {};
    struct sigaction stOwn;
    stDefault.sa_handler = SIG_DFL;
    sigset_t stStop;
    sigemptyset(&stStop);
    sigaddset(&stStop, lSignal);
    raise(lSignal);
    if (CLI_HasTerminal(pstTerminal)) {
        CLI_GiveTerminal(pstTerminal);
    }
    sigaction(lSignal, &stDefault, &stOwn);
    pthread_sigmask(SIG_UNBLOCK, &stStop, nullptr); // stopped here
    pthread_sigmask(SIG_BLOCK, &stStop, nullptr);
    sigaction(lSignal, &stOwn, nullptr);
    g_bStopped = true;
    CLI_TakeTerminal(pstTerminal);
}

static void CLI_OnSignal(int lSignal) {
    if (pthread_equal(g_ulThread, pthread_self()) == 0) {
        pthread_kill(g_ulThread, lSignal);
        return;
    }
    const int lErr = errno;
    switch (lSignal) {
    case SIGCONT: // another program that had the terminal meanwhile has set it for itself
        CLI_TakeTerminal(g_pstTerminal);
        break;
    case SIGTSTP:
        CLI_Stop(lSignal);
        break;
    default:
        CLI_End(lSignal);
    }
    errno = lErr;
}

static sigset_t CLI_HandledSignals() {
    sigset_t stSet;
    sigemptyset(&stSet);
    for (const int lSignal : g_alSignal) {
        sigaddset(&stSet, lSignal);
    }
    return stSet;
}

static void CLI_HandleSignals() {
    struct sigaction stAction = {};
    stAction.sa_handler = CLI_OnSignal;
    stAction.sa_flags = SA_RESTART;
    stAction.sa_mask = CLI_HandledSignals();
    for (const int lSignal : g_alSignal) {
        struct sigaction stOld;
        if (sigaction(lSignal, nullptr, &stOld) == 0 && stOld.sa_handler != SIG_IGN) { // as nohup wants it
            sigaction(lSignal, &stAction, nullptr);
        }
    }
}

int CLI_SetRawMode(CLI_Terminal *pstTerminal) {
    pstTerminal->stSaved = {};
    tcgetattr(STDIN_FILENO, &pstTerminal->stSaved);
    pstTerminal->stRaw = pstTerminal->stSaved;
    cfmakeraw(&pstTerminal->stRaw);
    pstTerminal->stRaw.c_iflag |= INLCR;
    pstTerminal->stRaw.c_oflag |= OPOST;
    for (int lFd = STDIN_FILENO; lFd <= STDERR_FILENO; lFd++) { // all before any is set: they may share flags
        pstTerminal->alFlags[lFd] = isatty(lFd) ? fcntl(lFd, F_GETFL) : -1;
    }
    g_ulThread = pthread_self();
    g_pstTerminal = pstTerminal;
    CLI_HandleSignals();
    setvbuf(stdin, nullptr, _IONBF, 0); // so that polling the descriptor tells whether a key is there
    CLI_SetFlags(pstTerminal, ~O_NONBLOCK);
    return tcsetattr(STDIN_FILENO, TCSAFLUSH, &pstTerminal->stRaw);
}

void CLI_RestoreMode(const CLI_Terminal *pstTerminal) {
    fflush(stdout);
    const sigset_t stHandled = CLI_HandledSignals();
    sigset_t stOld;
    pthread_sigmask(SIG_BLOCK, &stHandled, &stOld);
    CLI_GiveTerminal(pstTerminal);
    g_pstTerminal = nullptr;
    pthread_sigmask(SIG_SETMASK, &stOld, nullptr);
}

bool CLI_WasStopped() {
    return g_bStopped && CLI_HasTerminal(g_pstTerminal) && g_bStopped.exchange(false);
}
