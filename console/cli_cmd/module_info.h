// The names of the target's modules, which "debug" and "nodebug" without arguments list.
#ifndef CONSOLE_CLI_CMD_MODULE_INFO_H
#define CONSOLE_CLI_CMD_MODULE_INFO_H

#include <cstdint>

constexpr uint32_t CLI_MODULE_NUM = 33;
constexpr uint32_t CLI_MODULE_NAME_SIZE = 32;

extern char g_szModule[CLI_MODULE_NUM][CLI_MODULE_NAME_SIZE]; // an empty slot ends the list

// Takes the names from the target's list, in their order, each once; what has no slot is dropped. The first
// name always takes slot 0; a second list is merged into the table. BP_OK, or BP_ERR_PARAM for a null text.
uint32_t CLI_BuildModuleInfo(const char *pcText);

#endif
