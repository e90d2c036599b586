#include "console/cli_cmd/words.h"

#include <cstring>

void CLI_SplitLine(const char *pcLine, CLI_WORDS *pstWords) {
    *pstWords = {};
    size_t ulPos = strspn(pcLine, " ");
    while (pcLine[ulPos] != '\0' && pcLine[ulPos] != '\n' && pstWords->ulNum < CLI_WORD_NUM) {
        size_t ulLen = strcspn(pcLine + ulPos, " \n");
        ulLen = ulLen < CLI_WORD_SIZE ? ulLen : CLI_WORD_SIZE - 1;
        memcpy(pstWords->aszWord[pstWords->ulNum], pcLine + ulPos, ulLen);
        pstWords->aulStart[pstWords->ulNum++] = static_cast<uint32_t>(ulPos);
        ulPos += ulLen;
        ulPos += strspn(pcLine + ulPos, " ");
    }
}

uint32_t CLI_IsAllDigits(const char *pcWord) {
    return pcWord[strspn(pcWord, "0123456789")] == '\0' ? 1 : 0;
}
