// The canonical string, in which the console sends a complete command: "<" and the name of every word of the
// path, each followed by a space, ">" and the values of the parameters, each followed by ";".
#ifndef BP_BP_CMD_CMD_PARSE_H
#define BP_BP_CMD_CMD_PARSE_H

#include <cstdint>

#include "bp/bp_cmd/cmd_table.h"

// Result of BP_RunCmd.
constexpr uint32_t BP_ERR_CMD_UNKNOWN = 1107; // not a canonical string, or no complete command

// Runs the command that the ulLen bytes at pcText, which are not terminated and may come from anyone, are the
// canonical string of. If a value does not suit its parameter, or asks for help, the answer says what does and
// the command's function is not called. BP_OK, BP_ERR_CMD_UNKNOWN or what the function returns. The command
// module's thread.
uint32_t BP_RunCmd(const char *pcText, uint32_t ulLen, BP_CmdAnswer *pstAnswer);

#endif
