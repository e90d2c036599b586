#include "console/cli_cmd/input_error.h"

#include <cstdio>
#include <cstring>

#include "console/cli_cmd/line_editor.h"

static constexpr char g_szGap[] = " \t";
static constexpr char g_szTrailing[] = " \t\r\n";

static size_t CLI_WordStart(uint32_t ulWord) {
    size_t ulPos = strspn(g_szLineBuf, g_szGap);
    for (uint32_t i = 0; i < ulWord; i++) {
        ulPos += strcspn(g_szLineBuf + ulPos, g_szGap);
        ulPos += strspn(g_szLineBuf + ulPos, g_szGap);
    }
    return ulPos;
}

static void CLI_ShowCaret(size_t ulColumn, const char *pcCaret, const char *pcMessage) {
    printf("\r\n%*s%s\r\n%s", static_cast<int>(strlen(g_szSysPrompt) + ulColumn), "", pcCaret, pcMessage);
}

void CLI_ShowWrongInput(uint32_t ulWord) {
    CLI_ShowCaret(CLI_WordStart(ulWord), "^", "Wrong command input!");
}

void CLI_ShowAmbiguousInput(uint32_t ulWord) {
    size_t ulColumn = strlen(g_szLineBuf);
    if (ulWord != 0) {
        ulColumn = CLI_WordStart(ulWord - 1);
        ulColumn += strcspn(g_szLineBuf + ulColumn, g_szGap);
    }
    CLI_ShowCaret(ulColumn, " ^", "Ambiguous command input!");
}

void CLI_ShowIncompleteInput() {
    size_t ulColumn = strlen(g_szLineBuf);
    while (ulColumn != 0 && strchr(g_szTrailing, g_szLineBuf[ulColumn - 1]) != nullptr) {
        ulColumn--;
    }
    CLI_ShowCaret(ulColumn, " ^", "Incomplete command input!");
}
