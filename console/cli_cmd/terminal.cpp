#include "console/cli_cmd/terminal.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <unistd.h>

// What the signal handlers find; null while the settings are the terminal's own.
static std::atomic<const CLI_Terminal *> g_pstTerminal{nullptr};

// In the background the terminal is somebody else's, and setting it would stop the console. A terminal that
// controls no session, as a device's shell may have it, has no foreground.
static bool CLI_HasTerminal(const CLI_Terminal *pstTerminal) {
    const pid_t lForeground = tcgetpgrp(STDIN_FILENO);
    return pstTerminal != nullptr && (lForeground == -1 || lForeground == getpgrp());
}

// The console's thread ends the console: between two of its own steps, whichever thread the signal came to, so
// that it leaves nothing half done to the terminal.
static void CLI_OnEndSignal(int lSignal) {
    const int lErr = errno;
    const CLI_Terminal *pstTerminal = g_pstTerminal.load();
    if (pstTerminal != nullptr && pthread_equal(pstTerminal->ulThread, pthread_self()) == 0) {
        pthread_kill(pstTerminal->ulThread, lSignal);
    } else {
        if (CLI_HasTerminal(pstTerminal)) {
            tcsetattr(STDIN_FILENO, TCSANOW, &pstTerminal->stSaved);
        }
        signal(lSignal, SIG_DFL);
        raise(lSignal);
    }
    errno = lErr;
}

// Whoever had the terminal while the console was stopped has set it for himself.
static void CLI_OnContinue(int) {
    const int lErr = errno;
    const CLI_Terminal *pstTerminal = g_pstTerminal.load();
    if (CLI_HasTerminal(pstTerminal)) {
        tcsetattr(STDIN_FILENO, TCSANOW, &pstTerminal->stRaw);
    }
    errno = lErr;
}

static void CLI_Handle(int lSignal, void (*pfnHandler)(int)) {
    struct sigaction stOld;
    struct sigaction stAction = {};
    stAction.sa_handler = pfnHandler;
    stAction.sa_flags = SA_RESTART;
    sigemptyset(&stAction.sa_mask);
    if (sigaction(lSignal, nullptr, &stOld) == 0 && stOld.sa_handler != SIG_IGN) { // as nohup wants it
        sigaction(lSignal, &stAction, nullptr);
    }
}

int CLI_SetRawMode(CLI_Terminal *pstTerminal) {
    pstTerminal->ulThread = pthread_self();
    pstTerminal->stSaved = {};
    tcgetattr(STDIN_FILENO, &pstTerminal->stSaved);
    pstTerminal->stRaw = pstTerminal->stSaved;
    cfmakeraw(&pstTerminal->stRaw);
    pstTerminal->stRaw.c_iflag |= INLCR;
    pstTerminal->stRaw.c_oflag |= OPOST;
    g_pstTerminal = pstTerminal;
    for (const int lSignal : {SIGHUP, SIGTERM, SIGPIPE}) {
        CLI_Handle(lSignal, CLI_OnEndSignal);
    }
    CLI_Handle(SIGCONT, CLI_OnContinue);
    setvbuf(stdin, nullptr, _IONBF, 0); // so that polling the descriptor tells whether a key is there
    return tcsetattr(STDIN_FILENO, TCSAFLUSH, &pstTerminal->stRaw);
}

void CLI_RestoreMode(const CLI_Terminal *pstTerminal) {
    fflush(stdout);
    tcsetattr(STDIN_FILENO, TCSANOW, &pstTerminal->stSaved);
    g_pstTerminal = nullptr;
}
