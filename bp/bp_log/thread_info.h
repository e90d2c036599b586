// Which thread is which module: every thread of the runtime names itself and is listed, with its kernel thread
// ID, in /tmp/ThreadInfo[<pid>].log.
#ifndef BP_BP_LOG_THREAD_INFO_H
#define BP_BP_LOG_THREAD_INFO_H

#include <cstdint>

constexpr uint32_t BP_THREAD_INFO_NUM = 100;

struct BP_ThreadInfo {
    char szThreadName[64];
    uint32_t ulTid; // kernel thread ID; 0 = record free
};

// Filled from the first record on and never emptied; guarded by the lock of the runtime's log module entry.
extern BP_ThreadInfo g_astThreadInfo[BP_THREAD_INFO_NUM];

// Names the calling thread pcName and lists it; a name already listed gets the new thread ID in its old place.
// Does nothing before the runtime's log module is registered, and lists nothing when all records hold other
// names. Failures leave the file as it was, or absent, without a message. Any thread.
void BP_RecordThreadInfo(const char *pcName);

// Copies the records in use, at most ulMax, to pastInfo and returns their number. Any thread.
uint32_t BP_CopyThreadInfo(BP_ThreadInfo *pastInfo, uint32_t ulMax);

#endif
