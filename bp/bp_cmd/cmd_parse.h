// The canonical string, in which the console sends a complete command: "<" and the name of every word of the
// path, each followed by a space, ">" and the values of the parameters, each followed by ";".
#ifndef BP_BP_CMD_CMD_PARSE_H
#define BP_BP_CMD_CMD_PARSE_H

#include <cstdint>

#include "bp/bp_cmd/cmd_table.h"

// Finds the command and the values of its parameters. The text is ulLen bytes, not terminated, from whoever
// sent it. Null when it is not a canonical string, names no complete command, or its values do not suit it. Any
// thread.
const BP_CmdDef *BP_ParseCmd(const char *pcText, uint32_t ulLen, BP_CmdArgs *pstArgs);

#endif
