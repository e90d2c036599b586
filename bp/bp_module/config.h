// The static tables that configure the bus, the same in every process of the device, and the look-ups in them.
//
// Look-ups scan from row 0 and take the first match, so the order of rows is behaviour: MW_CC stands twice and
// is always found in its first row. They take no lock; the one write to a table, registration giving a row
// without a process to the calling one, happens at most for rows whose process ID is 0.
#ifndef BP_BP_MODULE_CONFIG_H
#define BP_BP_MODULE_CONFIG_H

#include <atomic>
#include <cstdint>

struct BP_ModuleConfig {
    char szModuleName[256];
    uint32_t ulModuleID;
    std::atomic<uint16_t> usProcID; // process in which the module lives
};

struct BP_ProcConfig {
    char szProcName[256];
    uint16_t usProcID;
    char szIP[128];  // dotted IPv4 text
    uint16_t usPort; // UDP port, host order; 0 = none, messages go to where the process's own came from
};

struct BP_SlabConfig {
    uint32_t ulSize; // bytes
    uint32_t ulNum;
};

constexpr uint32_t BP_MODULE_CONFIG_NUM = 33;
constexpr uint32_t BP_PROC_CONFIG_NUM = 4;
constexpr uint32_t BP_SLAB_CLASS_NUM = 8;
constexpr uint32_t BP_SLAB_CLASS_TIMER =
    7; // timer notices; the classes below it serve messages, by ascending size

extern BP_ModuleConfig g_astModuleConfigInfo[BP_MODULE_CONFIG_NUM];
extern BP_ProcConfig g_astProcConfigInfo[BP_PROC_CONFIG_NUM];
extern BP_SlabConfig g_astSlabConfig[BP_SLAB_CLASS_NUM];

// The name given to a thread without a module in a process without a row.
extern const char g_szInvalidModName[];

// The row of a process, whose first field is the name; null when there is none. Any thread.
BP_ProcConfig *BP_GetProcNameByID(uint16_t usProcID);

// The first module row with that name, byte for byte; null when there is none or the name is null. Any thread.
BP_ModuleConfig *BP_GetModuleConfigByName(const char *pcName);

// The first module row with that ID; for BP_MODULE_ID_MAIN the row of the calling process's main module. Null
// when there is none. Any thread.
BP_ModuleConfig *BP_GetModuleConfigByID(uint32_t ulModuleID);

// The ID of a configured module, which need not be registered nor live in this process. BP_OK with the ID at
// pulModuleID; BP_ERR_FAIL when no row has the name; BP_ERR_PARAM when an argument is null. Any thread.
uint32_t BP_GetModuleID(const char *pcName, uint32_t *pulModuleID);

// The name in the row that BP_GetModuleConfigByID finds; null, with an ERROR line, when there is none. Any
// thread.
const char *BP_GetModuleNameByID(uint32_t ulModuleID);

#endif
