#include "console/cli_cmd/prompt_loop.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "console/cli_cmd/cli_init.h"
#include "console/cli_cmd/cmd_tree.h"
#include "console/cli_cmd/interpret.h"
#include "console/cli_cmd/line_editor.h"
#include "console/cli_cmd/terminal.h"

static constexpr char g_szTopPrompt[] = "<dbg>";
static constexpr char g_szDebugPrompt[] = "[dbg]";
static constexpr char g_szEnterWord[] = "en_equipment";

enum CLI_NEXT { CLI_NEXT_TOP, CLI_NEXT_DEBUG, CLI_NEXT_QUIT };

static void CLI_SetPrompt(const char *pcPrompt) {
    snprintf(g_szSysPrompt, sizeof(g_szSysPrompt), "%s", pcPrompt);
}

static void CLI_ShowPrompt() {
    printf("\r\n%s", g_szSysPrompt);
}

static void CLI_ShowTopHelp() {
    printf("\r\nen_equipment\t\tEnter system mode");
    printf("\r\nquit\t\t\tQuit");
}

static void CLI_ShowUsage() {
    static constexpr const char *aapcUsage[][2] = {
        {"display loglevel", "display process' loglevel "},
        {"display <cmds> ...", "display process' info "},
        {"debug <module> [submodule] [servicetype]", "debugging process' log"},
        {"nodebug <module> [submodule] [servicetype]", "undo debugging process' log"},
        {"loglevel <level>", "set process' loglevel(2-5)"},
    };
    printf("\r\ncommand usage: ");
    for (const auto &apcRow : aapcUsage) {
        printf("\n\r%-44s%s", apcRow[0], apcRow[1]);
    }
}

static bool CLI_EntersDebugMode(const char *pcLine) {
    const bool bShort = pcLine[0] == 'e' && strchr(pcLine, '\t') != nullptr;
    return bShort || strncmp(pcLine, g_szEnterWord, strlen(g_szEnterWord)) == 0;
}

// One line of the top level.
static CLI_NEXT CLI_ServeTopLine() {
    memset(g_szLineBuf, 0, sizeof(g_szLineBuf));
    CLI_ReadLine();
    if (CLI_IsInputEnded() || g_szLineBuf[0] == 'q') {
        return CLI_NEXT_QUIT;
    }
    if (CLI_EntersDebugMode(g_szLineBuf)) {
        return CLI_NEXT_DEBUG;
    }
    if (g_szLineBuf[0] == '\t' || g_szLineBuf[0] == '?') {
        CLI_ShowTopHelp();
    }
    CLI_ShowPrompt();
    return CLI_NEXT_TOP;
}

static bool CLI_AsksForHelp() {
    const char cLast = CLI_LastChar(g_szLineBuf);
    return cLast == '?' || cLast == '\t';
}

// Interprets a line that asks for help or completion and shows it again, for the engineer to go on with.
static void CLI_ServeHelpLine() {
    CLI_MainProcess();
    if (CLI_AsksForHelp()) {
        g_szLineBuf[strlen(g_szLineBuf) - 1] = '\0';
    }
    CLI_ShowPrompt();
    printf("%s", g_szLineBuf);
}

static void CLI_ServeCommandLine() {
    CLI_MainProcess();
    g_szLineBuf[0] = '\0';
    CLI_ShowPrompt();
}

// Debug mode, until a line that begins with 'q' or the end of input.
static CLI_NEXT CLI_ServeDebugMode() {
    CLI_SetPrompt(g_szDebugPrompt);
    CLI_ShowUsage();
    memset(g_szLineBuf, 0, sizeof(g_szLineBuf));
    CLI_ShowPrompt();
    for (;;) {
        CLI_ReadLine();
        if (CLI_IsInputEnded()) {
            return CLI_NEXT_QUIT;
        }
        if (g_szLineBuf[0] == 'q') {
            printf("\r\n");
            return CLI_NEXT_TOP;
        }
        if (CLI_AsksForHelp()) {
            CLI_ServeHelpLine();
        } else {
            CLI_ServeCommandLine();
        }
    }
}

static void CLI_ServePrompts() {
    CLI_NEXT enNext = CLI_NEXT_TOP;
    while (enNext != CLI_NEXT_QUIT) {
        CLI_SetPrompt(g_szTopPrompt);
        CLI_ShowPrompt();
        do {
            enNext = CLI_ServeTopLine();
        } while (enNext == CLI_NEXT_TOP);
        if (enNext == CLI_NEXT_DEBUG) {
            enNext = CLI_ServeDebugMode();
        }
    }
    printf("\r\n");
}

static void CLI_FreeRoot(CLI_CMD_NODE **ppstRoot) {
    CLI_FreeTree(*ppstRoot);
    *ppstRoot = nullptr;
}

[[noreturn]] static void CLI_FailRawMode(const CLI_Terminal *pstTerminal, int lRet) {
    const int lErr = errno;
    BP_LOG_ERROR(BP_ERR_FAIL, "[%s]tcsetattr fail errcode:%d(%s). retval:%u", "CLI_run", lErr, strerror(lErr),
                 static_cast<uint32_t>(lRet));
    fprintf(stderr, "%s\n", "\r\nFailed to set attributes");
    CLI_RestoreMode(pstTerminal);
    CLI_FreeRoot(&g_pCmdTempletRoot);
    CLI_FreeRoot(&g_pCmdNodeRoot);
    exit(1);
}

int32_t CLI_run(int argc, char **argv) {
    const uint32_t ulRet = CLI_Init(argc, argv);
    if (ulRet != BP_OK) {
        return static_cast<int32_t>(ulRet);
    }
    CLI_Terminal stTerminal;
    const int lRet = CLI_SetRawMode(&stTerminal);
    if (lRet != 0) {
        CLI_FailRawMode(&stTerminal, lRet);
    }
    CLI_ServePrompts();
    CLI_RestoreMode(&stTerminal);
    CLI_FreeRoot(&g_pCmdTempletRoot);
    CLI_RestoreMode(&stTerminal);
    return 0;
}
