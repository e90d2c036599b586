// Registration of modules: a configured module gets a record and a thread.
#ifndef BP_BP_MODULE_REGIST_H
#define BP_BP_MODULE_REGIST_H

#include <cstdint>

// Registers the configured module pcName, which must live in this process, and starts its thread: the main
// thread for BP_MODULE_ID_MAIN, else an ordinary module thread. ulUnused is ignored; pulModuleID, which may be
// null, receives the module's ID, also when it turns out to live in another process. A name registered again
// gets a second record and thread, and look-ups then find the newer one, which also gets the answers to
// requests that the older one's thread makes: they end in BP_ERR_SYNC_TIMEOUT. Only the main module, which
// serves the process's one socket, is refused a second time. There is no way back. Any thread. BP_OK;
// BP_ERR_PARAM for a null name or one of more than 254 characters; BP_ERR_FAIL if the pool is exhausted, the
// name is not configured, the module lives elsewhere, the main module is registered already, or the thread
// cannot be started. A refusal leaves the pool as it was.
uint32_t BP_RegistModule(const char *pcName, uint32_t ulUnused, uint32_t *pulModuleID);

#endif
