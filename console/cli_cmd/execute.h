// The one road to the target: a command text with a message code goes out, a text comes back.
#ifndef CONSOLE_CLI_CMD_EXECUTE_H
#define CONSOLE_CLI_CMD_EXECUTE_H

#include <cstdint>

#include "bp/bp.h"

constexpr uint32_t CLI_ANSWER_TIMEOUT = 10; // seconds

extern uint32_t g_ulModuleID; // the target's command module

// Sends the text (empty: "dbgcmd") and does with the answer what the code asks for: rebuilds the tree
// (BP_CMD_GET_TREE), fills the module table (BP_CMD_GET_MODULES), prints it, or drops it. Blocks for at most
// CLI_ANSWER_TIMEOUT. BP_OK, also when the target could not carry the command out, which is printed;
// BP_ERR_PARAM for a null text; otherwise the code of the step that failed. Nothing is printed when no answer
// came.
uint32_t CLI_ExecuteCmd(uint32_t ulMsgCode, const char *pcCmdData);

#endif
