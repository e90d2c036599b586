// The evidence that a shortage of buffers leaves: what is in every used buffer, which timers work, and the last
// lines of the middleware's logs. docs/log-files.md shows where.
//
// A dump takes no lock of the runtime but those of the log, because whoever ran short may hold any of them, the
// timer pool's above all; it is a snapshot, which other threads may change while it is taken. Each allocates
// its text for the time of the call. Failures end only the step concerned and have an ERROR line.
#ifndef BP_BP_MODULE_DUMPS_H
#define BP_BP_MODULE_DUMPS_H

#include <cstdint>

#define BP_SLAB_DUMP_PATH "/var/log/Slab_all.log"
#define BP_TIMER_DUMP_PATH "/var/log/Timer_info.log"
#define BP_KEY_DUMP_PATH "/var/log/Slab_Keyinfo.log"

// Each writes its file anew, BP_CollectKeyLog as far as there are logs to read. One at a time: the caller holds
// the mutex of g_stBPbuffLogMgr.
void BP_DumpSlabLog();
void BP_DumpTimerLog();
void BP_CollectKeyLog();

// Replaces the file by the ulLen bytes at pcText. BP_OK or BP_ERR_FAIL. Any thread.
uint32_t BP_WriteDumpFile(const char *pcPath, const char *pcText, uint32_t ulLen);

#endif
