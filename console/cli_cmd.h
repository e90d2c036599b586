// The debug console: terminal loop, line editor, command tree, interpretation, execution.
//
// Everything here belongs to the program's own thread, the one that entered main; nothing is locked.
#ifndef CONSOLE_CLI_CMD_H
#define CONSOLE_CLI_CMD_H

#include "console/cli_cmd/cli_init.h"
#include "console/cli_cmd/cmd_tree.h"
#include "console/cli_cmd/execute.h"
#include "console/cli_cmd/history.h"
#include "console/cli_cmd/interpret.h"
#include "console/cli_cmd/line_editor.h"
#include "console/cli_cmd/module_info.h"
#include "console/cli_cmd/prompt_loop.h"
#include "console/cli_cmd/terminal.h"

#endif
