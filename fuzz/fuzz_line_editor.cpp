// Bytes of the terminal up to its end, through a pipe in the place of standard input.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

#include "console/cli_cmd/history.h"
#include "console/cli_cmd/line_editor.h"
#include "fuzz/fuzz_support.h"

static constexpr size_t FUZZ_KEYS = 60000; // what a pipe takes without a reader

void FuzzStart() {
    setvbuf(stdin, nullptr, _IONBF, 0); // as the console has it
}

// Nobody waits behind these keys: a sequence that they leave unfinished is at its end at once.
static void Feed(const uint8_t *pucKeys, size_t ulNum) {
    int alPipe[2];
    FuzzExpect(pipe(alPipe) == 0 && write(alPipe[1], pucKeys, ulNum) == static_cast<ssize_t>(ulNum) &&
                   dup2(alPipe[0], STDIN_FILENO) == STDIN_FILENO,
               "keys are typed");
    close(alPipe[0]);
    close(alPipe[1]);
    clearerr(stdin);
}

static bool IsPending() {
    int lNum = 0;
    return ioctl(STDIN_FILENO, FIONREAD, &lNum) == 0 && lNum > 0;
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
    Feed(pucData, ulSize < FUZZ_KEYS ? ulSize : FUZZ_KEYS);
    g_szLineBuf[0] = '\0';
    while (IsPending()) {
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
