// The handler tables of a module: which function serves which message code.
#ifndef BP_BP_MODULE_MSG_PROC_H
#define BP_BP_MODULE_MSG_PROC_H

#include <cstdint>

#include "bp/bp_module/module_info.h"

// The two tables of a module, by the message type they serve.
constexpr uint32_t BP_PROC_TABLE_NORMAL = 0;
constexpr uint32_t BP_PROC_TABLE_INNER = 1;

// Empties a table and frees all its entries. For a record that no thread uses yet.
void BP_InitMsgProcTable(BP_ListCtrlOf<BP_MsgProc> *pstCtrl, BP_MsgProc *pastProc);

// Registers pfnProc for the messages with ulMsgCode (0: with any code) of the registered module ulModuleID,
// which must live in this process. Of several entries that match a message, the one registered first serves it.
// Any thread, also while messages arrive; there is no way back.
// BP_OK; BP_ERR_PARAM for a null function, an unknown table, or a code that has a handler already;
// BP_ERR_NO_MODULE when the module is not registered; BP_ERR_FAIL when the table is full.
uint32_t BP_RegistMsgProc(uint32_t ulModuleID, uint32_t ulTable, uint32_t ulMsgCode, BP_PfnMsgProc pfnProc,
                          uint32_t ulParam);

// The entry that serves a code, null when there is none. Entries are never removed. Any thread.
BP_MsgProc *BP_GetMsgProcByMsgID(BP_ListCtrlOf<BP_MsgProc> *pstCtrl, uint32_t ulMsgCode);

#endif
