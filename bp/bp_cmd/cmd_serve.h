// The target's side of the debug console: serves the console's requests in the thread of the command module.
//
// "debug <module> [submodule] [servicetype]" switches on the DEBUG lines of the log module whose name is these
// words, a space between each two, and of every log module whose name goes on after them; "nodebug" switches
// them off. To give a module submodules, register a log module for each with BP_RegCmdModuleID, for example
// "MW_PTZ" and "MW_PTZ move", each under an ID of its own, and write each line under the ID that it belongs to.
// "debug MW_PTZ move" then shows moves alone, "debug MW_PTZ" everything. A service type is a third word, a part
// of what the submodule does: "MW_PTZ move left". A whole name has at most 31 characters.
#ifndef BP_BP_CMD_CMD_SERVE_H
#define BP_BP_CMD_CMD_SERVE_H

#include <cstdint>

// Requests of the console and what is answered. A request that is refused is answered "operate fail", and a
// WARN line, which a log level above 3 drops, says what was refused and why. A value that does not suit its
// parameter is answered in words.
constexpr uint32_t BP_CMD_GET_TREE = 31051;    // the definition text
constexpr uint32_t BP_CMD_GET_MODULES = 31052; // the log modules: what "debug" can be given
constexpr uint32_t BP_CMD_GET_LEVEL = 31055;
constexpr uint32_t BP_CMD_SET_LEVEL = 31056; // text: the level, 2 to 5
constexpr uint32_t BP_CMD_DEBUG_ON = 31058;  // text: a log module's name, each word after a line feed, or "all"
constexpr uint32_t BP_CMD_DEBUG_OFF = 31059;
constexpr uint32_t BP_CMD_RUN = 31060; // text: a canonical string

// Makes this process a target: registers the handlers of the requests above at its command module, and the
// commands about the runtime itself. Requests that arrive earlier are not answered, so this comes before the
// main module is registered: before BP_MwareInit, which then does it at the right moment, or between the two
// where the process registers its main module itself. BP_OK, or the first failed registration's result, which
// fails BP_MwareInit if it was called before that.
uint32_t BP_StartCmd();

#endif
