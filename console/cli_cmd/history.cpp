#include "console/cli_cmd/history.h"

#include <cstdlib>
#include <cstring>

char *g_szHistoryCmd[CLI_HISTORY_NUM];
uint32_t g_ulHistorySavePosition;
uint32_t g_ulHistoryShowPosition;

static constexpr uint32_t CLI_OLDER = CLI_HISTORY_NUM - 1; // a step back, modulo the ring
static constexpr uint32_t CLI_NEWER = 1;

static uint32_t CLI_Step(uint32_t ulPosition, uint32_t ulStep) {
    return (ulPosition + ulStep) % CLI_HISTORY_NUM;
}

static bool CLI_IsWorthSaving(const char *pcLine) {
    const size_t ulLen = strlen(pcLine);
    if (ulLen == 0 || pcLine[ulLen - 1] == '?' || pcLine[ulLen - 1] == '\t') {
        return false;
    }
    const char *pcLast = g_szHistoryCmd[CLI_Step(g_ulHistorySavePosition, CLI_OLDER)];
    return pcLast == nullptr || strcmp(pcLast, pcLine) != 0;
}

void CLI_SaveHistory(const char *pcLine) {
    g_ulHistoryShowPosition = g_ulHistorySavePosition;
    if (!CLI_IsWorthSaving(pcLine)) {
        return;
    }
    char **ppcSlot = &g_szHistoryCmd[g_ulHistorySavePosition];
    const size_t ulSize = strlen(pcLine) + 1;
    free(*ppcSlot);
    *ppcSlot = static_cast<char *>(calloc(1, ulSize));
    if (*ppcSlot == nullptr) {
        return;
    }
    memcpy(*ppcSlot, pcLine, ulSize);
    g_ulHistorySavePosition = CLI_Step(g_ulHistorySavePosition, CLI_NEWER);
    g_ulHistoryShowPosition = g_ulHistorySavePosition;
}

// Walks from the line shown last to the next stored one. At the end of the ring the show position stops one
// step short of the save position, so that the way back does not skip a line.
static const char *CLI_Recall(uint32_t ulStep) {
    uint32_t i = CLI_Step(g_ulHistoryShowPosition, ulStep);
    while (i != g_ulHistorySavePosition && g_szHistoryCmd[i] == nullptr) {
        i = CLI_Step(i, ulStep);
    }
    if (i == g_ulHistorySavePosition) {
        g_ulHistoryShowPosition = CLI_Step(i, CLI_HISTORY_NUM - ulStep);
        return nullptr;
    }
    g_ulHistoryShowPosition = i;
    return g_szHistoryCmd[i];
}

const char *CLI_RecallOlder() {
    return CLI_Recall(CLI_OLDER);
}

const char *CLI_RecallNewer() {
    return CLI_Recall(CLI_NEWER);
}
