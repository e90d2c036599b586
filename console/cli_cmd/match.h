// Matching the words of a line against the command tree, and completing the last one.
#ifndef CONSOLE_CLI_CMD_MATCH_H
#define CONSOLE_CLI_CMD_MATCH_H

#include <cstdint>

#include "console/cli_cmd/interpret.h"
#include "console/cli_cmd/words.h"

// Matches all words and sends the command when it is complete. szFullCmd is scratch room for what is sent.
// 0, or 1 when the input was wrong; either way the engineer has been told.
int32_t CLI_MatchWords(const CLI_WORDS *pstWords, char (&szFullCmd)[CLI_FULL_CMD_SIZE]);

#endif
