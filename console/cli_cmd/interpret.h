// Interpretation of a line typed in debug mode: the built-in words "debug", "nodebug", "loglevel" and "display
// loglevel", or a walk of the command tree, word by word.
//
// Words must be typed whole; TAB completes them. Only the first 20 words count. What they make is sent to the
// target only when all of it fits its buffer: a word that no longer fits is reported as wrong input, never cut.
#ifndef CONSOLE_CLI_CMD_INTERPRET_H
#define CONSOLE_CLI_CMD_INTERPRET_H

#include <cstdint>

#include "console/cli_cmd/input_error.h"
#include "console/cli_cmd/words.h"

constexpr uint32_t CLI_FULL_CMD_SIZE = 256;
constexpr uint32_t CLI_EXTEND_SIZE = 40;

extern char g_szExtendParam[CLI_EXTEND_SIZE]; // parameter values of the last tree command, each followed by ";"

// Interprets g_szLineBuf, which a final TAB may complete in place. Everything the engineer sees is printed here
// or by CLI_ExecuteCmd. 0 when done or nothing was to be done; 1 for wrong input or a line without words; for a
// built-in word the result of CLI_ExecuteCmd.
int32_t CLI_MainProcess();

#endif
