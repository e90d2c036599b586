// The target's side of the debug console: serves the console's requests in the thread of the command module.
#ifndef BP_BP_CMD_CMD_SERVE_H
#define BP_BP_CMD_CMD_SERVE_H

#include <cstdint>

// Requests of the console and what is answered. A request whose text is not understood is answered "operate
// fail".
constexpr uint32_t BP_CMD_GET_TREE = 31051;    // the definition text
constexpr uint32_t BP_CMD_GET_MODULES = 31052; // the modules, and what else "debug" may be given
constexpr uint32_t BP_CMD_GET_LEVEL = 31055;
constexpr uint32_t BP_CMD_SET_LEVEL = 31056; // text: the level, 2 to 5
constexpr uint32_t BP_CMD_DEBUG_ON = 31058;  // text: log modules, each behind a line feed, or "all"
constexpr uint32_t BP_CMD_DEBUG_OFF = 31059;
constexpr uint32_t BP_CMD_RUN = 31060; // text: a canonical string

// Makes this process a target: registers the handlers of the requests above at its command module, and the
// commands about the runtime itself. After BP_MwareInit and, so that no request comes too early, before the
// main module is registered where the process does that itself. BP_OK, or the first failed registration's
// result.
uint32_t BP_StartCmd();

#endif
