// The history: a ring of the last lines entered, shared by both prompts, kept for the life of the process.
//
// The slot that the next line goes into is never shown, so of 11 stored lines the 10 latest can be recalled.
#ifndef CONSOLE_CLI_CMD_HISTORY_H
#define CONSOLE_CLI_CMD_HISTORY_H

#include <cstdint>

constexpr uint32_t CLI_HISTORY_NUM = 11;

extern char *g_szHistoryCmd[CLI_HISTORY_NUM]; // each a heap copy of one line, or null
extern uint32_t g_ulHistorySavePosition;      // slot of the next line saved
extern uint32_t g_ulHistoryShowPosition;      // slot of the line recalled last

// Stores a finished line, unless it is empty, ends in '?' or TAB, equals the line before it, or memory runs
// out; in any case the next recall starts at the newest line.
void CLI_SaveHistory(const char *pcLine);

// The line before (older) or behind (newer) the one recalled last; null when there is none, the line shown then
// stays.
const char *CLI_RecallOlder();
const char *CLI_RecallNewer();

#endif
