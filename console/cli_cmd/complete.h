// Completion of the word that a TAB ends.
#ifndef CONSOLE_CLI_CMD_COMPLETE_H
#define CONSOLE_CLI_CMD_COMPLETE_H

#include <cstdint>

#include "console/cli_cmd/cmd_tree.h"

// pcWord is the fragment with its TAB, beginning at ulStart in g_szLineBuf; pstHead heads the group it belongs
// to. One keyword that begins with the fragment replaces it in the line, one space behind it; a line that would
// grow too long stays as it is. Otherwise the names and help lines of all that begin with it are listed;
// nothing is printed when none does.
void CLI_CompleteWord(CLI_CMD_NODE *pstHead, const char *pcWord, uint32_t ulStart);

#endif
