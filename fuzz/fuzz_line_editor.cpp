// Bytes of the terminal up to its end, through a pipe in the place of standard input.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

#include "console/cli_cmd/history.h"
#include "console/cli_cmd/line_editor.h"
#include "fuzz/fuzz_support.h"

static constexpr size_t FUZZ_KEYS = 60000; // what a pipe takes without a reader
static constexpr char FUZZ_EVENT = '\xFF';
enum : uint8_t { FUZZ_LATE, FUZZ_INTERRUPTED, FUZZ_EVENT_NUM };

// What is typed: bytes, and between them a pause that is longer than the wait for the rest of a sequence, or a
// signal. Both are FUZZ_EVENT and their number.
static std::string_view g_szKeys;
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
    const bool bEvent = g_szKeys.size() >= 2 && g_szKeys[0] == FUZZ_EVENT && g_szKeys[1] >= 0;
    return bEvent && g_szKeys[1] < FUZZ_EVENT_NUM ? static_cast<uint8_t>(g_szKeys[1]) : FUZZ_EVENT_NUM;
}

// Types up to the next event, or leaves the terminal.
static void TypeOn() {
    std::string szTyped;
    for (; !g_szKeys.empty() && Event() == FUZZ_EVENT_NUM; g_szKeys.remove_prefix(1)) {
        szTyped += g_szKeys[0];
    }
    if (!szTyped.empty()) {
        FuzzExpect(write(g_lTyping, szTyped.data(), szTyped.size()) == static_cast<ssize_t>(szTyped.size()),
                   "keys are typed");
    } else if (g_szKeys.empty() && g_lTyping != -1) {
        close(g_lTyping);
        g_lTyping = -1;
    }
}

// In the place of the system's: time passes as the input says.
extern "C" int poll(struct pollfd *pstPoll, nfds_t, int lTimeoutMs) {
    while (!IsPending() && g_lTyping != -1) {
        const uint8_t ucEvent = Event();
        g_szKeys.remove_prefix(ucEvent != FUZZ_EVENT_NUM ? 2 : 0);
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

static bool AsksForHelp(const char *pcLine) {
    const char cLast = CLI_LastChar(pcLine);
    return cLast == '?' || cLast == '\t';
}

static void CheckHistory() {
    FuzzExpect(g_ulHistorySavePosition < CLI_HISTORY_NUM && g_ulHistoryShowPosition < CLI_HISTORY_NUM,
               "positions are in the ring");
    for (uint32_t i = 0; i < CLI_HISTORY_NUM; i++) {
        const std::string szLine = g_szHistoryCmd[i] != nullptr ? g_szHistoryCmd[i] : "";
        const uint32_t ulNext = (i + 1) % CLI_HISTORY_NUM;
        const char *pcNext = ulNext == g_ulHistorySavePosition ? nullptr : g_szHistoryCmd[ulNext];
        FuzzExpect(g_szHistoryCmd[i] == nullptr || (!szLine.empty() && !AsksForHelp(szLine.c_str())),
                   "the history holds finished lines");
        FuzzExpect(szLine.size() < CLI_LINE_SIZE, "the history holds whole lines");
        FuzzExpect(szLine.empty() || pcNext == nullptr || szLine != pcNext,
                   "the history holds no line twice in a row");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize) {
    int alPipe[2];
    FuzzExpect(pipe(alPipe) == 0 && dup2(alPipe[0], STDIN_FILENO) == STDIN_FILENO, "a terminal is there");
    close(alPipe[0]);
    clearerr(stdin);
    g_lTyping = alPipe[1];
    g_szKeys = std::string_view(reinterpret_cast<const char *>(pucData), std::min(ulSize, FUZZ_KEYS));
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
    g_ulHistorySavePosition = g_ulHistoryShowPosition = 0;
    return 0;
}
