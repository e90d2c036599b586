// The line editor: reads one line from the raw terminal, echoing, erasing and recalling as it goes. The cursor
// is always at the end of the text.
#ifndef CONSOLE_CLI_CMD_LINE_EDITOR_H
#define CONSOLE_CLI_CMD_LINE_EDITOR_H

#include <cstdint>

constexpr uint32_t CLI_LINE_SIZE = 100; // bytes of the line, its terminator included
constexpr uint32_t CLI_PROMPT_SIZE = 40;

extern char g_szLineBuf[CLI_LINE_SIZE];
extern char g_szSysPrompt[CLI_PROMPT_SIZE];

// Reads until the line ends: by Enter, or by '?' or TAB, which then is the line's last character. Starts behind
// the text that g_szLineBuf already holds, so a caller that wants a fresh line clears it first. Blocks.
// Standard input must be unbuffered, as CLI_SetRawMode leaves it.
//
// When input has ended (the terminal was closed) the line is empty and CLI_IsInputEnded says so from then on.
void CLI_ReadLine();
bool CLI_IsInputEnded();

// One more byte of standard input without waiting: 255 when none is there, 0 when non-blocking mode could not
// be switched.
uint8_t CLI_ReadPendingChar();

// The last character of pcText, 0 for an empty text.
char CLI_LastChar(const char *pcText);

#endif
