// Bytes of the terminal up to its end, through a pipe in the place of standard input.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "console/cli_cmd/history.h"
#include "console/cli_cmd/line_editor.h"
#include "fuzz/fuzz_support.h"

static constexpr size_t FUZZ_KEYS = 60000; // what a pipe takes without a reader
static constexpr uint8_t FUZZ_EVENT = 0xFF;
enum : uint8_t { FUZZ_LATE, FUZZ_INTERRUPTED, FUZZ_EVENT_NUM };

// What is typed: bytes, and between them a pause that is longer than the wait for the rest of a sequence, or a
// signal. Both are FUZZ_EVENT and their number.
static const uint8_t *g_pucKeys;
static size_t g_ulKeys;
static int g_lTyping = -1; // the pipe's other end

void FuzzStart() {
    setvbuf(stdin, nullptr, _IONBF, 0); // as the console has it
}

static bool IsPending() {
    int lNum = 0;
    return ioctl(STDIN_FILENO, FIONREAD, &lNum) == 0 && lNum > 0;
}

// The event that is next, FUZZ_EVENT_NUM when it is a key or the end.
static uint8_t Event() {
    return g_ulKeys >= 2 && g_pucKeys[0] == FUZZ_EVENT && g_pucKeys[1] < FUZZ_EVENT_NUM ? g_pucKeys[1]
                                                                                        : FUZZ_EVENT_NUM;
}

static void Skip(size_t ulNum) {
    g_pucKeys += ulNum;
    g_ulKeys -= ulNum;
}

// Types up to the next event, or leaves the terminal.
static void TypeOn() {
    const uint8_t *pucStart = g_pucKeys;
    while (g_ulKeys != 0 && Event() == FUZZ_EVENT_NUM) {
        Skip(1);
    }
    const size_t ulNum = static_cast<size_t>(g_pucKeys - pucStart);
    if (ulNum != 0) {
        FuzzExpect(write(g_lTyping, pucStart, ulNum) == static_cast<ssize_t>(ulNum), "keys are typed");
    } else if (g_ulKeys == 0 && g_lTyping != -1) {
        close(g_lTyping);
        g_lTyping = -1;
    }
}

// In the place of the system's: time passes as the input says.
extern "C" int poll(struct pollfd *pstPoll, nfds_t, int lTimeoutMs) {
    while (!IsPending() && g_lTyping != -1) {
        const uint8_t ucEvent = Event();
        if (ucEvent != FUZZ_EVENT_NUM) {
            Skip(2);
        }
        if (ucEvent == FUZZ_INTERRUPTED) {
            errno = EINTR;
            return -1;
        }
        if (ucEvent == FUZZ_LATE && lTimeoutMs >= 0) {
            return 0;
        }
        TypeOn();
    }
    pstPoll->revents = POLLIN;
    return 1;
}

static void SitDown(const uint8_t *pucKeys, size_t ulNum) {
    int alPipe[2];
    FuzzExpect(pipe(alPipe) == 0 && dup2(alPipe[0], STDIN_FILENO) == STDIN_FILENO, "a terminal is there");
    close(alPipe[0]);
    g_lTyping = alPipe[1];
    clearerr(stdin);
    g_pucKeys = pucKeys;
    g_ulKeys = ulNum;
}

static bool AsksForHelp(const char *pcLine) {
    const char cLast = CLI_LastChar(pcLine);
    return cLast == '?' || cLast == '\t';
}

static void CheckHistory() {
    FuzzExpect(g_ulHistorySavePosition < CLI_HISTORY_NUM && g_ulHistoryShowPosition < CLI_HISTORY_NUM,
               "positions are in the ring");
    for (uint32_t i = 0; i < CLI_HISTORY_NUM; i++) {
        const char *pcLine = g_szHistoryCmd[i];
        const char *pcNext = g_szHistoryCmd[(i + 1) % CLI_HISTORY_NUM];
        if (pcLine == nullptr) {
            continue;
        }
        FuzzExpect(pcLine[0] != '\0' && !AsksForHelp(pcLine), "the history holds finished lines");
        FuzzExpect(strlen(pcLine) < CLI_LINE_SIZE, "the history holds whole lines");
        FuzzExpect(pcNext == nullptr || (i + 1) % CLI_HISTORY_NUM == g_ulHistorySavePosition ||
                       strcmp(pcLine, pcNext) != 0,
                   "the history holds no line twice in a row");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize) {
    SitDown(pucData, ulSize < FUZZ_KEYS ? ulSize : FUZZ_KEYS);
    g_szLineBuf[0] = '\0';
    while (IsPending() || g_lTyping != -1) {
        CLI_ReadLine();
        FuzzExpect(strnlen(g_szLineBuf, CLI_LINE_SIZE) < CLI_LINE_SIZE, "the line keeps its end");
        CheckHistory();
        g_szLineBuf[AsksForHelp(g_szLineBuf) ? strlen(g_szLineBuf) - 1 : 0] = '\0';
    }
    CLI_ReadLine();
    FuzzExpect(CLI_IsInputEnded() && g_szLineBuf[0] == '\0', "input that has ended makes no line");
    for (char *&pcLine : g_szHistoryCmd) {
        free(pcLine);
        pcLine = nullptr;
    }
    g_ulHistorySavePosition = 0;
    g_ulHistoryShowPosition = 0;
    return 0;
}
