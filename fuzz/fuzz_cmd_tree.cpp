// A target's definition text and module list, each ended by a NUL, and lines typed at the debug prompt.
#include <cstdlib>
#include <cstring>

#include "console/cli_cmd.h"
#include "console/cli_cmd/cmd_tree.h"
#include "console/cli_cmd/execute.h"
#include "console/cli_cmd/interpret.h"
#include "console/cli_cmd/line_editor.h"
#include "console/cli_cmd/module_info.h"
#include "fuzz/fuzz_support.h"

static constexpr size_t FUZZ_LINES = 64;

static std::string g_szAnswer;

void FuzzStart() {}

// From < to >, followed by the values and nothing else.
static bool IsFramed(const std::string &szText, const std::string &szEnd) {
    return szText.size() > szEnd.size() && szText[0] == '<' && (szEnd.size() == 1 || szEnd.back() == ';') &&
           szText.compare(szText.size() - szEnd.size(), std::string::npos, szEnd) == 0;
}

static void CheckRequest(const std::string &szText, uint32_t ulMsgCode) {
    switch (ulMsgCode) {
    case BP_CMD_RUN:
        FuzzExpect(strnlen(g_szExtendParam, CLI_EXTEND_SIZE) < CLI_EXTEND_SIZE, "its values fit theirs");
        FuzzExpect(IsFramed(szText, std::string(">") + g_szExtendParam), "a command is framed");
        FuzzExpect(szText.size() < CLI_FULL_CMD_SIZE, "a command fits its buffer");
        break;
    case BP_CMD_DEBUG_ON:
    case BP_CMD_DEBUG_OFF:
        FuzzExpect(szText[0] == '\n' && szText.size() < CLI_FULL_CMD_SIZE, "a list of modules is one");
        break;
    case BP_CMD_SET_LEVEL:
        FuzzExpect(szText.find_first_not_of("0123456789") == std::string::npos && szText.size() < 40,
                   "a level is a number");
        break;
    default:
        FuzzExpect(szText == "dbgcmd", "a request without text carries the usual one");
        FuzzExpect(ulMsgCode == BP_CMD_GET_TREE || ulMsgCode == BP_CMD_GET_MODULES ||
                       ulMsgCode == BP_CMD_GET_LEVEL,
                   "a request is a known one");
    }
}

// Takes the place of BP_SendCmdMsg, from where the console's requests go to the bus.
extern "C" uint32_t __wrap__Z13BP_SendCmdMsgPKcjjjPPc(const char *pcText, uint32_t, uint32_t ulMsgCode,
                                                      uint32_t, char **ppcAnswer) {
    CheckRequest(pcText, ulMsgCode);
    *ppcAnswer = strdup(g_szAnswer.c_str());
    return BP_OK;
}

// As the prompt does: a line that asks for help is gone on with, any other is done with.
static void Type(const std::string &szLine) {
    const size_t ulUsed = strlen(g_szLineBuf);
    snprintf(g_szLineBuf + ulUsed, sizeof(g_szLineBuf) - ulUsed, "%s", szLine.c_str());
    CLI_MainProcess();
    FuzzExpect(strnlen(g_szLineBuf, CLI_LINE_SIZE) < CLI_LINE_SIZE, "the line keeps its end");
    const size_t ulLen = strlen(g_szLineBuf);
    const bool bHelp = ulLen > 0 && (g_szLineBuf[ulLen - 1] == '\t' || g_szLineBuf[ulLen - 1] == '?');
    g_szLineBuf[bHelp ? ulLen - 1 : 0] = '\0';
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize) {
    std::vector<std::string> aszText = FuzzSplit(FuzzText(pucData, ulSize), '\0', 3);
    const bool bLines = aszText.size() > 2;
    aszText.resize(3);
    g_szAnswer = aszText[0];
    CLI_ExecuteCmd(BP_CMD_GET_TREE, "");
    g_szAnswer = aszText[1];
    CLI_ExecuteCmd(BP_CMD_GET_MODULES, "");
    for (const auto &szName : g_szModule) {
        FuzzExpect(strnlen(szName, sizeof(szName)) < sizeof(szName), "a module's name has its end");
    }
    g_szAnswer = "an answer";
    g_szLineBuf[0] = '\0';
    for (const std::string &szLine : FuzzSplit(aszText[2], '\n', bLines ? FUZZ_LINES : 0)) {
        Type(szLine);
    }
    CLI_FreeTree(g_pCmdTempletRoot);
    CLI_FreeTree(g_pCmdNodeRoot);
    g_pCmdTempletRoot = g_pCmdNodeRoot = nullptr;
    memset(g_szModule, 0, sizeof(g_szModule)); // the console merges lists, but an input must be repeatable
    return 0;
}
