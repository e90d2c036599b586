// Bytes of the terminal, through a pipe in the place of standard input.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

#include "console/cli_cmd/history.h"
#include "console/cli_cmd/line_editor.h"
#include "fuzz/fuzz_support.h"

static constexpr size_t FUZZ_KEYS = 60000;  // what a pipe takes without a reader
static const char g_szEnd[] = "\r\r\r\r\r"; // one more than an unfinished escape sequence swallows

static int g_lKeys;

void FuzzStart() {
    int alPipe[2];
    FuzzExpect(pipe(alPipe) == 0 && dup2(alPipe[0], STDIN_FILENO) == STDIN_FILENO, "a pipe is there");
    g_lKeys = alPipe[1];
    setvbuf(stdin, nullptr, _IONBF, 0); // as the console has it
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
    std::string szKeys(reinterpret_cast<const char *>(pucData), ulSize < FUZZ_KEYS ? ulSize : FUZZ_KEYS);
    szKeys += g_szEnd;
    FuzzExpect(write(g_lKeys, szKeys.data(), szKeys.size()) == static_cast<ssize_t>(szKeys.size()),
               "keys are typed");
    g_szLineBuf[0] = '\0';
    while (IsPending()) {
        CLI_ReadLine();
        FuzzExpect(!CLI_IsInputEnded(), "input goes on");
        FuzzExpect(strnlen(g_szLineBuf, CLI_LINE_SIZE) < CLI_LINE_SIZE, "the line keeps its end");
        CheckHistory();
        g_szLineBuf[AsksForHelp(g_szLineBuf) ? strlen(g_szLineBuf) - 1 : 0] = '\0';
    }
    for (char *&pcLine : g_szHistoryCmd) {
        free(pcLine);
        pcLine = nullptr;
    }
    g_ulHistorySavePosition = 0;
    g_ulHistoryShowPosition = 0;
    return 0;
}
