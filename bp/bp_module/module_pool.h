// The process's pool of module records: who is registered, and which module the calling thread is.
//
// Look-ups walk the registered records from the youngest on, so of two records with one ID the younger is
// found. They take no lock: a record is published complete, with its thread running, and stays registered for
// ever.
#ifndef BP_BP_MODULE_MODULE_POOL_H
#define BP_BP_MODULE_MODULE_POOL_H

#include <cstdint>

#include "bp/bp_module/module_info.h"

// Empties the pool; with bFill, puts all unregistered records on the free list. Start-up only.
void BP_InitModulePool(bool bFill);

// Puts the record at the front of the used list, where look-ups find it from now on. The caller holds the
// pool's lock.
void BP_PublishModule(BP_ModuleInfo *pstModule);

// The registered record with that ID, null when there is none. Any thread.
BP_ModuleInfo *BP_GetModuleByID(uint32_t ulModuleID);

// Makes the calling thread that record's for the rest of its life.
void BP_SetThreadModule(BP_ModuleInfo *pstModule);

// The record whose thread is the calling one, null for a thread of nobody's. Any thread.
BP_ModuleInfo *BP_GetThreadModule();

// The record whose thread is the calling one, else the process's main module, else null. Any thread.
BP_ModuleInfo *BP_GetCurModule();

// The name of the calling thread's record, else of the process, else g_szInvalidModName. Any thread.
const char *BP_GetCurThreadName();

// Lets the module's thread run one pass. BP_OK, also for BP_MODULE_ID_MAIN, whose thread is never asleep for
// long and is not woken; BP_ERR_FAIL when no registered module has the ID. Any thread.
uint32_t BP_WakeupModule(uint32_t ulModuleID);

// The same for the record that something was queued to, which need not be the newest of its ID any more.
void BP_WakeupRecord(BP_ModuleInfo *pstModule);

// Copies up to ulMax pointers to the registered records, oldest first, and returns their number. Any thread.
uint32_t BP_ListModules(BP_ModuleInfo **papstModule, uint32_t ulMax);

#endif
