// The log: timestamped lines into rotating files under /var/log, one table of log modules per process.
//
// A line is written only if its module ID has been registered, a DEBUG line only if that module's debugging is
// on. All lines of a process end up in the files of the process entry (entry 0), except those of
// BP_LOG_MODULE_ID_OWN. Entries are never removed; an entry is complete before ulModuleNum counts it, so any
// thread may log while another registers.
//
// The log never reports its own failures through itself: they go to standard error and the line is dropped.
#ifndef BP_BP_LOG_LOG_H
#define BP_BP_LOG_LOG_H

#include <atomic>
#include <cstdint>
#include <pthread.h>

#include "bp/bp_log/log_file.h"

constexpr uint32_t BP_LOG_LEVEL_DEBUG = 1;
constexpr uint32_t BP_LOG_LEVEL_INFO = 2;
constexpr uint32_t BP_LOG_LEVEL_WARN = 3;
constexpr uint32_t BP_LOG_LEVEL_ERROR = 4;
constexpr uint32_t BP_LOG_LEVEL_FATAL = 5;
constexpr uint32_t BP_LOG_LEVEL_CFGSET = 6;
constexpr uint32_t BP_LOG_LEVEL_BUF = 7;

constexpr uint32_t BP_LOG_BP_MODULE_ID = 0x01040000;  // the runtime's own log module
constexpr uint32_t BP_LOG_MODULE_ID_OWN = 0xFFFFFFFC; // the one module that writes files of its own
constexpr uint32_t BP_LOG_MODULE_NUM = 33;            // the process entry and 32 log modules

struct BP_LogModule {
    uint32_t ulModuleID;             // 0 = entry free; 0xFFFFFFFF for the process entry
    std::atomic<uint32_t> ulDebugOn; // 1 when DEBUG lines of this module are written
    pthread_mutex_t stLock;          // guards the three files
    BP_LogFile stLogFile;
    BP_LogFile stDebugFile;
    BP_LogFile stBufFile;
    char szName[32]; // the name it was registered under, cut to 31 characters
};

struct BP_LogMgr {
    char szProcName[32];
    std::atomic<uint32_t> ulModuleNum; // entries in use, the process entry included; 0 = the log is silent
    BP_LogModule astLogModule[BP_LOG_MODULE_NUM];
};

extern BP_LogMgr g_stBPLogMgr;

// Clears the log and takes the process name, cut to 31 characters. A null name does nothing. If the clock
// cannot be converted, a line on standard error says so and nothing changes. Once per process, before any other
// thread.
void BP_InitLog(const char *pcProcName);

// Registers a log module. pcName (copied) is its name and the stem of files of its own; ulArg2 and ulArg3 are
// unused. An ID registered twice makes two entries, of which the first is used. BP_OK; BP_ERR_FAIL when no
// entry is free or its mutex cannot be made; BP_ERR_PARAM for a null name or the ID 0, which marks free
// entries. Any thread.
uint32_t BP_RegCmdModuleID(const char *pcName, uint32_t ulArg2, uint32_t ulArg3, uint32_t ulModuleID);

// Writes one line. ulCode is the caller's result or error code, 0 where there is none; pcFile the reporting
// source (a path is allowed). By convention the first format argument is the reporting function's name. Any
// thread; blocks while another line of the process is being written, and for at most half a second while
// another process holds the file's lock. Never fails visibly: a line that is not wanted is dropped.
void BP_WriteLog(uint32_t ulLevel, uint32_t ulCode, uint32_t ulModuleID, const char *pcFile, uint32_t ulLine,
                 const char *pcFormat, ...) __attribute__((format(printf, 6, 7)));

// The process's threshold: INFO to FATAL lines below it are dropped. BP_LOG_LEVEL_INFO, where nothing is
// dropped, until it is set. DEBUG lines have a switch of their own; CFGSET and BUF lines are records, not
// reports. Set: BP_OK, or BP_ERR_PARAM for a level outside INFO to FATAL. Any thread.
uint32_t BP_SetLogLevel(uint32_t ulLevel);
uint32_t BP_GetLogLevel();

// The name of a level, " " for 0 and "?" above the last one.
const char *BP_LogLevelName(uint32_t ulLevel);

// The first registered log module with that ID, or of that name; null when there is none. The process entry is
// never found. Any thread.
BP_LogModule *BP_FindLogModule(uint32_t ulModuleID);
BP_LogModule *BP_FindLogModuleByName(const char *pcName);

// The state of one entry of the table, the process entry first. Sizes in bytes.
struct BP_LogInfo {
    char szName[32];
    uint32_t ulModuleID;
    uint32_t ulDebugOn;
    uint32_t ulLogSize;
    uint32_t ulDebugSize;
    uint32_t ulBufSize;
};
// BP_OK, or BP_ERR_PARAM when there is no entry ulIndex. Any thread.
uint32_t BP_GetLogInfo(uint32_t ulIndex, BP_LogInfo *pstInfo);

// What the lines call the source at pcFile; pcName holds 63 bytes.
constexpr uint32_t BP_LOG_SOURCE_SIZE = 63;
void BP_LogSourceName(const char *pcFile, char *pcName);

// One line of the runtime's own log module. BP_LOG_UNIT, the source name, is set by the build for each unit.
#define BP_LOG_LINE(ulLevel, ulCode, ...)                                                                      \
    BP_WriteLog(ulLevel, ulCode, BP_LOG_BP_MODULE_ID, BP_LOG_UNIT, __LINE__, __VA_ARGS__)
#define BP_LOG_DEBUG(...) BP_LOG_LINE(BP_LOG_LEVEL_DEBUG, 0, __VA_ARGS__)
#define BP_LOG_INFO(...) BP_LOG_LINE(BP_LOG_LEVEL_INFO, 0, __VA_ARGS__)
#define BP_LOG_WARN(ulCode, ...) BP_LOG_LINE(BP_LOG_LEVEL_WARN, ulCode, __VA_ARGS__)
#define BP_LOG_ERROR(ulCode, ...) BP_LOG_LINE(BP_LOG_LEVEL_ERROR, ulCode, __VA_ARGS__)

#endif
