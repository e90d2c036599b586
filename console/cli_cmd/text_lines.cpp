#include "console/cli_cmd/text_lines.h"

#include <cstring>

const char *CLI_SkipFirstByte(const char *pcText) {
    return pcText[0] == '\0' ? pcText : pcText + 1;
}

bool CLI_NextLine(const char **ppcText, char *pcLine, uint32_t ulSize) {
    const char *pcStart = *ppcText + strspn(*ppcText, "\n");
    const size_t ulLen = strcspn(pcStart, "\n");
    *ppcText = pcStart + ulLen;
    const size_t ulCopy = ulLen < ulSize ? ulLen : ulSize - 1;
    memcpy(pcLine, pcStart, ulCopy);
    pcLine[ulCopy] = '\0';
    return ulLen != 0;
}
