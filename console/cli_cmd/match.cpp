#include "console/cli_cmd/match.h"

#include <cstdio>
#include <cstring>

#include "console/cli_cmd/cmd_tree.h"
#include "console/cli_cmd/complete.h"
#include "console/cli_cmd/execute.h"
#include "console/cli_cmd/line_editor.h"

char g_szExtendParam[CLI_EXTEND_SIZE];

// A node takes a typed word as its value: a string any word, an integer a number.
static bool CLI_TakesValue(const CLI_CMD_NODE *pstNode, const char *pcWord) {
    return pstNode->ulType == CLI_TYPE_STRING ||
           (pstNode->ulType == CLI_TYPE_INTEGER && CLI_IsAllDigits(pcWord) != 0);
}

static bool CLI_Accepts(const CLI_CMD_NODE *pstNode, const char *pcWord) {
    return strncmp(pstNode->szName, pcWord, strlen(pcWord)) == 0 || CLI_TakesValue(pstNode, pcWord);
}

static uint32_t CLI_CountCandidates(CLI_CMD_NODE *pstHead, const char *pcWord) {
    uint32_t ulNum = 0;
    for (CLI_CMD_NODE *pstNode = pstHead; pstNode != nullptr; pstNode = CLI_NextInGroup(pstHead, pstNode)) {
        ulNum += CLI_Accepts(pstNode, pcWord) ? 1 : 0;
    }
    return ulNum;
}

// The node that the word selects: whole name or value, the later members of the group before its head. Null for
// a mere abbreviation.
static CLI_CMD_NODE *CLI_SelectNode(CLI_CMD_NODE *pstHead, const char *pcWord) {
    CLI_CMD_NODE *pstNode = CLI_NextInGroup(pstHead, pstHead);
    while (pstNode != nullptr && strcmp(pstNode->szName, pcWord) != 0 && !CLI_TakesValue(pstNode, pcWord)) {
        pstNode = CLI_NextInGroup(pstHead, pstNode);
    }
    if (pstNode != nullptr) {
        return pstNode;
    }
    return strcmp(pstHead->szName, pcWord) == 0 || CLI_TakesValue(pstHead, pcWord) ? pstHead : nullptr;
}

// Adds the node's name and, for a parameter, the value. False, with nothing added, when the command as it would
// be sent no longer fits.
static bool CLI_AppendNode(const CLI_CMD_NODE *pstNode, const char *pcWord,
                           char (&szFullCmd)[CLI_FULL_CMD_SIZE]) {
    const size_t ulFull = strlen(szFullCmd);
    const size_t ulExtend = strlen(g_szExtendParam);
    const size_t ulName = strlen(pstNode->szName) + strlen(" ");
    const size_t ulValue = CLI_TakesValue(pstNode, pcWord) ? strlen(pcWord) + strlen(";") : 0;
    if (ulExtend + ulValue >= sizeof(g_szExtendParam) ||
        ulFull + ulName + strlen(">") + ulExtend + ulValue >= sizeof(szFullCmd)) {
        return false;
    }
    snprintf(szFullCmd + ulFull, sizeof(szFullCmd) - ulFull, "%s ", pstNode->szName);
    if (ulValue != 0) {
        snprintf(g_szExtendParam + ulExtend, sizeof(g_szExtendParam) - ulExtend, "%s;", pcWord);
    }
    return true;
}

static int32_t CLI_SendFullCmd(char (&szFullCmd)[CLI_FULL_CMD_SIZE]) {
    const size_t ulFull = strlen(szFullCmd);
    snprintf(szFullCmd + ulFull, sizeof(szFullCmd) - ulFull, ">%s", g_szExtendParam);
    BP_LOG_DEBUG("[%s]szFullCmd = %s", "CLI_MainProcess", szFullCmd);
    CLI_ExecuteCmd(BP_CMD_RUN, szFullCmd);
    return 0;
}

// Matches one word against the group and moves on to the group behind it. False when the input was wrong.
static bool CLI_MatchWord(const CLI_WORDS *pstWords, uint32_t ulWord, CLI_CMD_NODE **ppstHead,
                          char (&szFullCmd)[CLI_FULL_CMD_SIZE]) {
    const char *pcWord = pstWords->aszWord[ulWord];
    const uint32_t ulNum = CLI_CountCandidates(*ppstHead, pcWord);
    if (ulNum > 1) {
        CLI_ShowAmbiguousInput(ulWord);
        return false;
    }
    CLI_CMD_NODE *pstNode = ulNum == 1 ? CLI_SelectNode(*ppstHead, pcWord) : nullptr;
    if (pstNode == nullptr || !CLI_AppendNode(pstNode, pcWord, szFullCmd)) {
        CLI_ShowWrongInput(ulWord);
        return false;
    }
    *ppstHead = CLI_NodeAfter(pstNode);
    return true;
}

int32_t CLI_MatchWords(const CLI_WORDS *pstWords, char (&szFullCmd)[CLI_FULL_CMD_SIZE]) {
    snprintf(szFullCmd, sizeof(szFullCmd), "<");
    memset(g_szExtendParam, 0, sizeof(g_szExtendParam));
    CLI_CMD_NODE *pstHead = g_pCmdTempletRoot;
    if (pstHead == nullptr) {
        CLI_ShowWrongInput(0);
        return 1;
    }
    for (uint32_t i = 0; i < pstWords->ulNum; i++) {
        const char *pcWord = pstWords->aszWord[i];
        if (CLI_LastChar(pcWord) == '\t') {
            if (pstHead->ulType == CLI_TYPE_END) {
                return CLI_SendFullCmd(szFullCmd);
            }
            CLI_CompleteWord(pstHead, pcWord, pstWords->aulStart[i]);
            return 0;
        }
        if (!CLI_MatchWord(pstWords, i, &pstHead, szFullCmd)) {
            return 1;
        }
    }
    if (pstHead->ulType == CLI_TYPE_END) {
        return CLI_SendFullCmd(szFullCmd);
    }
    CLI_ShowIncompleteInput();
    return 0;
}
