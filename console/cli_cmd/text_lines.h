// Lines of the texts that the target sends.
#ifndef CONSOLE_CLI_CMD_TEXT_LINES_H
#define CONSOLE_CLI_CMD_TEXT_LINES_H

#include <cstdint>

// A text in such a form begins with one byte that means nothing; returns what follows it.
const char *CLI_SkipFirstByte(const char *pcText);

// Copies the next line, cut to ulSize - 1 characters, and moves *ppcText behind it. Runs of line feeds count as
// one, so a line is never empty. False at the end of the text.
bool CLI_NextLine(const char **ppcText, char *pcLine, uint32_t ulSize);

#endif
