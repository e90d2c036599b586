#include "bp/bp_module/config.h"

#include <cstring>

#include "bp/bp_log/log.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_types.h"

// name, module ID, process ID. Writable: registration gives a row with process ID 0 to its own process.
BP_ModuleConfig g_astModuleConfigInfo[BP_MODULE_CONFIG_NUM] = {
    {"MW_MWARE", BP_MODULE_ID_MAIN, 101},
    {"MW_CTRL", 0x90000001, 101},
    {"MW_STOR_MCP", 0x90000002, 101},
    {"MW_PTZ", 0x90000003, 101},
    {"MW_ALM", 0x90000004, 101},
    {"MW_SNMP", 0x90000005, 101},
    {"MW_CC", 0x90000007, 101},
    {"MW_SDK", 0x9000000B, 101},
    {"MW_MP", 0x9000000C, 101},
    {"MW_IW", 0x9000000E, 101},
    {"MW_UPNP", 0x9000000F, 101},
    {"MW_INTERFACE", 0x9000000D, 101},
    {"MW_LIGHTAPI", 0x90000010, 101},
    {"MW_LISTEN", 0x90000014, 101},
    {"MW_WEB", 0x90000013, 101},
    {"CC_GB", 0x90007000, 101},
    {"MW_CC", 0x90000007, 101},
    {"CC_RA", 0x90007002, 101},
    {"AM_RM", 0x90007003, 101},
    {"AM_SIP", 0x90007004, 101},
    {"MW_MWARE_cmd", BP_MODULE_ID_MWARE_CMD, 101},
    {"ks", BP_MODULE_ID_MAIN, 257},
    {"ks_cmd", 0x90009001, 257},
    {"update_cmd", BP_MODULE_ID_EXT, 101},
    {"sdk_update", BP_MODULE_ID_MAIN, 258},
    {"sdk_update_cmd", 0x9000A001, 258},
    {"MW_IWARE_cmd", BP_MODULE_ID_IWARE_CMD, 102},
    {"MW_IWARE", BP_MODULE_ID_MAIN, 102},
    {"MW_IWAREEXT", BP_MODULE_ID_EXT, 102},
    {"MW_MWAREEXT", BP_MODULE_ID_EXT, 101},
    {"MW_SRLZ", 0x90000011, 101},
    {"MW_SERIAL", 0x90000012, 101},
    {"MW_TIPS", 0x90000015, 101},
};

// name, process ID, address, port
BP_ProcConfig g_astProcConfigInfo[BP_PROC_CONFIG_NUM] = {
    {"MW_MWARE", 101, "127.0.0.1", 2048},
    {"MW_IWARE", 102, "127.0.0.1", 2049},
    {"ks", 257, "127.0.0.1", 0},
    {"sdk_update", 258, "127.0.0.1", 0},
};

// size, number; the row is the size class
BP_SlabConfig g_astSlabConfig[BP_SLAB_CLASS_NUM] = {
    {128, 256}, {256, 128}, {512, 64}, {1024, 32}, {2048, 16}, {4096, 8}, {16384, 4}, {8, 256},
};

const char g_szInvalidModName[] = "invalid";

BP_ProcConfig *BP_GetProcNameByID(uint16_t usProcID) {
    for (BP_ProcConfig &stRow : g_astProcConfigInfo) {
        if (stRow.usProcID == usProcID) {
            return &stRow;
        }
    }
    return nullptr;
}

BP_ModuleConfig *BP_GetModuleConfigByName(const char *pcName) {
    if (pcName == nullptr) {
        return nullptr;
    }
    for (BP_ModuleConfig &stRow : g_astModuleConfigInfo) {
        if (strcmp(stRow.szModuleName, pcName) == 0) {
            return &stRow;
        }
    }
    return nullptr;
}

BP_ModuleConfig *BP_GetModuleConfigByID(uint32_t ulModuleID) {
    const uint16_t usOwnProcID = BP_GetProcInfo()->usProcID;
    for (BP_ModuleConfig &stRow : g_astModuleConfigInfo) {
        if (stRow.ulModuleID == ulModuleID &&
            (ulModuleID != BP_MODULE_ID_MAIN || BP_Read(stRow.usProcID) == usOwnProcID)) {
            return &stRow;
        }
    }
    return nullptr;
}

uint32_t BP_GetModuleID(const char *pcName, uint32_t *pulModuleID) {
    if (pcName == nullptr || pulModuleID == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params.", __func__);
        return BP_ERR_PARAM;
    }
    BP_LOG_DEBUG("[%s]get module %s id.", __func__, pcName);
    const BP_ModuleConfig *pstRow = BP_GetModuleConfigByName(pcName);
    if (pstRow == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to find module info.", __func__);
        return BP_ERR_FAIL;
    }
    *pulModuleID = pstRow->ulModuleID;
    return BP_OK;
}

const char *BP_GetModuleNameByID(uint32_t ulModuleID) {
    const BP_ModuleConfig *pstRow = BP_GetModuleConfigByID(ulModuleID);
    if (pstRow == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to find module info.", __func__);
        return nullptr;
    }
    return pstRow->szModuleName;
}
