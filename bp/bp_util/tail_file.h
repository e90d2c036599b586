// Copies the end of a text file into another.
#ifndef BP_BP_UTIL_TAIL_FILE_H
#define BP_BP_UTIL_TAIL_FILE_H

#include <cstdint>

// Appends ("a") or writes ("w", by pcMode) a heading with the source's path and the last ulLines newline-ended
// lines of the source, with an unfinished line behind them, to the destination. What does not fit the block of
// 24575 bytes is cut at its end. Both must be plain files, as own_file.h has it. BP_OK, or BP_ERR_FAIL with an
// ERROR line: the source cannot be read, memory is short, or the destination cannot be written. Any thread;
// allocates the block for the time of the call.
uint32_t BP_TailFile(const char *pcSrcPath, const char *pcDstPath, const char *pcMode, uint32_t ulLines);

#endif
