// Attaching to the target, before the terminal is touched.
#ifndef CONSOLE_CLI_CMD_CLI_INIT_H
#define CONSOLE_CLI_CMD_CLI_INIT_H

#include <cstdint>

extern const char g_szTargetMware[]; // "MW_MWARE", the default
extern const char g_szTargetIware[]; // "MW_IWARE"

// Registers the console's command module, finds the target's, and asks it for its commands and modules. A
// target that does not answer is no failure: the console then has its built-in commands only, and a line on
// standard error says so. BP_OK, or the code of the step that failed. Ends the process with the log
// registration's code when that fails.
uint32_t CLI_Init(int argc, char **argv);

#endif
