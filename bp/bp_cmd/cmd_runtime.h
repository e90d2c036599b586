// The commands about the runtime itself, which every process that is a target has.
#ifndef BP_BP_CMD_CMD_RUNTIME_H
#define BP_BP_CMD_CMD_RUNTIME_H

#include <cstdint>

#include "bp/bp_cmd/cmd_table.h"

// Registers them. BP_OK, or what BP_RegistCmd returns.
uint32_t BP_RegistRuntimeCmds();

// Appends the log's threshold: the answer to "display loglevel", which the console sends as a request of its
// own.
void BP_PrintLogLevel(BP_CmdAnswer *pstAnswer);

#endif
