// Start-up: one call makes the program a process on the bus.
#ifndef BP_BP_MODULE_PROC_INIT_H
#define BP_BP_MODULE_PROC_INIT_H

#include <cstdint>

// Joins the bus under the name and process ID of one of the configured processes: opens the log, builds the
// pools, opens the socket, registers the command module and, except in MW_MWARE, which does it itself when it
// is ready to receive, the main module. Called from the program's own thread, before anything else of the
// runtime, and once: every further call is refused, also after a start that failed, because what the first one
// set up stays in use; only a name that does not fit has set nothing up but the log.
//
// BP_OK; BP_ERR_FAIL when start-up failed or has been made before; BP_ERR_PARAM for a name that is null, empty
// or longer than 59 characters. The log says what failed.
uint32_t BP_MwareInit(const char *pcProcName, uint32_t ulProcID);

// The process part of the start, without the log. For BP_MwareInit only; results as there.
uint32_t BP_ProcInit(const char *pcProcName, uint32_t ulProcID);

using BP_PfnStart = uint32_t (*)();
constexpr uint32_t BP_MAX_START_HOOK_NUM = 8;

// Has start-up call pfnStart once the command module is registered and before the main module is, from when on
// messages arrive: what must be there for the first of them is registered in it. Hooks are called in the order
// in which they were added, one added twice once; the first whose result is not BP_OK fails the start. Before
// BP_MwareInit, by the thread that will call it. BP_OK, or BP_ERR_FAIL if there are BP_MAX_START_HOOK_NUM.
uint32_t BP_AddStartHook(BP_PfnStart pfnStart);

#endif
