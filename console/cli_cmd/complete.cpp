#include "console/cli_cmd/complete.h"

#include <cstdio>
#include <cstring>

#include "console/cli_cmd/line_editor.h"

static void CLI_CompleteInPlace(const CLI_CMD_NODE *pstNode, uint32_t ulStart) {
    if (ulStart + strlen(pstNode->szName) + strlen(" ") < sizeof(g_szLineBuf)) {
        snprintf(g_szLineBuf + ulStart, sizeof(g_szLineBuf) - ulStart, "%s ", pstNode->szName);
    }
}

void CLI_CompleteWord(CLI_CMD_NODE *pstHead, const char *pcWord, uint32_t ulStart) {
    const size_t ulFragment = strlen(pcWord) - strlen("\t");
    uint32_t ulNum = 0;
    const CLI_CMD_NODE *pstFirst = nullptr;
    for (CLI_CMD_NODE *pstNode = pstHead; pstNode != nullptr; pstNode = CLI_NextInGroup(pstHead, pstNode)) {
        if (strncmp(pstNode->szName, pcWord, ulFragment) == 0) {
            pstFirst = ulNum++ == 0 ? pstNode : pstFirst;
        }
    }
    if (ulNum == 1 && pstFirst->ulType == CLI_TYPE_TITLE) {
        CLI_CompleteInPlace(pstFirst, ulStart);
        return;
    }
    if (ulNum == 0) {
        return;
    }
    printf("\r\n");
    for (CLI_CMD_NODE *pstNode = pstHead; pstNode != nullptr; pstNode = CLI_NextInGroup(pstHead, pstNode)) {
        if (strncmp(pstNode->szName, pcWord, ulFragment) == 0) {
            printf("%s \t\t %s\n", pstNode->szName, pstNode->szHelp);
        }
    }
}
