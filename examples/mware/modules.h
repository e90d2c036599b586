// The modules of the example processes, and what they say to each other.
#ifndef EXAMPLES_MWARE_MODULES_H
#define EXAMPLES_MWARE_MODULES_H

#include "bp/bp.h"

// Message codes.
constexpr uint32_t MW_MSG_TICK = 1001;  // time has passed: no payload
constexpr uint32_t MW_MSG_MOVE = 1002;  // to MW_PTZ: int32_t, degrees to turn
constexpr uint32_t MW_MSG_LIMIT = 1003; // to MW_ALM: int32_t, position in degrees
constexpr uint32_t MW_MSG_FLOOD = 1004; // to MW_CTRL: int32_t, messages to send to MW_STOR_MCP
constexpr uint32_t MW_MSG_STORE = 1005; // to MW_STOR_MCP: no payload

constexpr int32_t MW_TICK_MS = 100;

// A module with one handler.
struct MW_Module {
    const char *pcName;
    uint32_t ulMsgCode;
    BP_PfnMsgProc pfnProc;
    uint32_t *pulModuleID; // where its ID is kept
};

// Gives the log a module of that name, whose DEBUG lines "debug" and the name switch. BP_OK or what failed.
uint32_t MW_StartLogModule(const char *pcName, uint32_t ulLogID);

// Puts the module on the bus, with a log module of the same name. BP_OK or what failed.
uint32_t MW_StartModule(const MW_Module &stModule);

// Start the modules of MW_MWARE (the camera) or MW_IWARE (the intercom). BP_OK or what failed.
uint32_t MW_StartCamera();
uint32_t MW_StartIntercom();

#endif
